// SPDX-License-Identifier: Apache-2.0
//
// gimli and addr2line: U, E, L, A, I and F; S over gimli's rows, whose rules are applied here; W with a cache of rules, as the walkers
// of profilers that build on gimli have it, none of which is packaged. See contest.h.
use gimli::{
    AttributeValue, BaseAddresses, CfaRule, EndianSlice, LittleEndian, Reader, Register, RegisterRule,
    UnwindContext, UnwindSection,
};
use object::{Object, ObjectSection};
use std::os::raw::{c_int, c_long, c_void};
use std::time::Instant;

type R = EndianSlice<'static, LittleEndian>;

const SAVED: [u16; 7] = [3, 6, 12, 13, 14, 15, 16];

fn name_check(s: &[u8]) -> u64 {
    let mut t = [0u8; 8];
    let tail = &s[s.len().saturating_sub(8)..];
    t[..tail.len()].copy_from_slice(tail);
    (s.len() as u64).wrapping_mul(0x9e3779b97f4a7c15).wrapping_add(u64::from_le_bytes(t))
}
fn place_check(path: &str, line: u64) -> u64 {
    let p = path.as_bytes();
    let base = p.iter().rposition(|&c| c == b'/').map_or(p, |i| &p[i + 1..]);
    name_check(base).wrapping_mul(31).wrapping_add(line)
}
fn row_check(reg: u64, off: i64) -> u64 {
    (reg + 1).wrapping_mul(0x10000001).wrapping_add(off as u64)
}
fn saved_check(reg: u16, off: i64) -> u64 {
    (reg as u64 + 7).wrapping_mul(off.wrapping_mul(1000003) as u64)
}

#[derive(Default)]
struct Bench {
    job: char,
    file: String,
    queries: Vec<[u64; 3]>,
    items: u64,
    reads: u64,
    check: u64,
    ns: u64,
    ns_first: u64,
    ns_cold: u64,
    ns_warm: u64,
}

thread_local! {
    static MAPPED: std::cell::RefCell<Vec<(usize, usize)>> = const { std::cell::RefCell::new(Vec::new()) };
}
/// Every reader of the mappings is gone when this is called.
fn unmap_files() {
    MAPPED.with(|m| {
        for (p, n) in m.borrow_mut().drain(..) {
            unsafe { libc::munmap(p as *mut c_void, n) };
        }
    });
}

fn map_file(path: &str) -> &'static [u8] {
    let c = std::ffi::CString::new(path).unwrap();
    unsafe {
        let fd = libc::open(c.as_ptr(), libc::O_RDONLY);
        assert!(fd >= 0, "cannot open {path}");
        let mut st: libc::stat = std::mem::zeroed();
        libc::fstat(fd, &mut st);
        let p = libc::mmap(std::ptr::null_mut(), st.st_size as usize, libc::PROT_READ, libc::MAP_PRIVATE, fd, 0);
        assert!(p != libc::MAP_FAILED);
        libc::close(fd);
        MAPPED.with(|m| m.borrow_mut().push((p as usize, st.st_size as usize)));
        std::slice::from_raw_parts(p as *const u8, st.st_size as usize)
    }
}

fn section(obj: &object::File<'static>, name: &str) -> R {
    let d = obj.section_by_name(name).and_then(|s| s.data().ok()).unwrap_or(&[]);
    EndianSlice::new(d, LittleEndian)
}

fn load(path: &str) -> (object::File<'static>, gimli::Dwarf<R>) {
    let obj = object::File::parse(map_file(path)).unwrap();
    let dwarf = gimli::Dwarf::load(|id| -> Result<R, gimli::Error> { Ok(section(&obj, id.name())) }).unwrap();
    (obj, dwarf)
}

fn units(b: &mut Bench, d: &gimli::Dwarf<R>) {
    let mut it = d.units();
    while let Some(h) = it.next().unwrap() {
        // Unit::new reads the root entry, and with it the name and the directory
        let u = d.unit(h).unwrap();
        let n = u.name.map_or(0, |s| name_check(s.slice()));
        let c = u.comp_dir.map_or(0, |s| name_check(s.slice()));
        b.check = b.check.wrapping_add(n).wrapping_add(c.wrapping_mul(3));
        b.items += 1;
    }
}

fn entries(b: &mut Bench, d: &gimli::Dwarf<R>) {
    let mut it = d.units();
    while let Some(h) = it.next().unwrap() {
        let abbrevs = h.abbreviations(&d.debug_abbrev).unwrap();
        let mut raw = h.entries_raw(&abbrevs, None).unwrap();
        while !raw.is_empty() {
            let Some(a) = raw.read_abbreviation().unwrap() else { continue };
            b.items += 1;
            for &declared in a.attributes() {
                let v = raw.read_attribute(declared).unwrap().raw_value();
                let w = match v {
                    AttributeValue::Addr(x) => x,
                    AttributeValue::Block(x) => x.len() as u64,
                    AttributeValue::Exprloc(x) => x.0.len() as u64,
                    AttributeValue::Data1(x) => x as u64,
                    AttributeValue::Data2(x) => x as u64,
                    AttributeValue::Data4(x) => x as u64,
                    AttributeValue::Data8(x) => x,
                    AttributeValue::Udata(x) => x,
                    AttributeValue::Sdata(x) => x as u64,
                    AttributeValue::Flag(x) => x as u64,
                    AttributeValue::SecOffset(x) => x as u64,
                    AttributeValue::UnitRef(x) => x.0 as u64,
                    AttributeValue::DebugStrRef(o) => d.debug_str.get_str(o).unwrap().len() as u64,
                    AttributeValue::String(s) => s.len() as u64,
                    _ => 0,
                };
                b.check = b.check.wrapping_add(w);
            }
        }
    }
}

struct Row {
    address: u64,
    #[allow(dead_code)]
    file: u64,
    line: u32,
    #[allow(dead_code)]
    column: u32,
}

fn lines(b: &mut Bench, d: &gimli::Dwarf<R>) {
    let mut it = d.units();
    let mut tables = Vec::new(); // kept, as the others keep theirs
    while let Some(h) = it.next().unwrap() {
        let u = d.unit(h).unwrap();
        let Some(p) = u.line_program.clone() else { continue };
        let mut rows = p.rows();
        let mut t: Vec<Row> = Vec::new();
        while let Some((_, r)) = rows.next_row().unwrap() {
            let column = match r.column() {
                gimli::ColumnType::LeftEdge => 0,
                gimli::ColumnType::Column(c) => c.get() as u32,
            };
            t.push(Row { address: r.address(), file: r.file_index(), line: r.line().map_or(0, |l| l.get()) as u32, column });
        }
        for r in &t {
            b.check = b.check.wrapping_add(r.address ^ r.line as u64);
        }
        b.items += t.len() as u64;
        tables.push(t);
    }
}

type Context = addr2line::Context<R>;

fn place_at(ctx: &Context, address: u64) -> u64 {
    match ctx.find_location(address) {
        Ok(Some(l)) => l.file.map_or(0, |f| place_check(f, l.line.unwrap_or(0) as u64)),
        _ => 0,
    }
}

fn chain_at(ctx: &Context, address: u64) -> u64 {
    let mut check = 0u64;
    let mut frames = ctx.find_frames(address).unwrap();
    while let Some(frame) = frames.next().unwrap() {
        let name = frame.function.as_ref().map_or(0, |f| name_check(f.name.slice()));
        let place = frame.location.map_or(0, |l| l.file.map_or(0, |f| place_check(f, l.line.unwrap_or(0) as u64)));
        check = check.wrapping_add(name.wrapping_mul(7)).wrapping_add(place);
    }
    check
}

fn places(b: &mut Bench, d: gimli::Dwarf<R>, t0: Instant, answer: fn(&Context, u64) -> u64) {
    let ctx = Context::from_dwarf(d).unwrap();
    let mut warm = Vec::new();
    let mut pass = 0;
    // As run_passes of contest.h.
    while warm.len() < 5 && (warm.is_empty() || t0.elapsed().as_nanos() < (b.ns_cold + 500_000_000) as u128) {
        let t1 = Instant::now();
        b.check = 0;
        let mut addresses: Vec<u64> = b.queries.iter().map(|q| q[0]).collect();
        if b.job == 'B' || b.job == 'J' {
            addresses.sort_unstable();
        }
        for i in 0..addresses.len() {
            let c = answer(&ctx, addresses[i]);
            b.check = b.check.wrapping_add(c);
            if i == 0 && pass == 0 {
                b.ns_first = t0.elapsed().as_nanos() as u64;
            }
        }
        if pass == 0 {
            b.ns_cold = t0.elapsed().as_nanos() as u64;
        } else {
            warm.push(t1.elapsed().as_nanos() as u64);
        }
        pass += 1;
    }
    warm.sort();
    b.ns_warm = warm[warm.len() / 2];
    b.items = b.queries.len() as u64;
}

/// Of an object that is loaded at an address.
fn bases(obj: &object::File<'static>, loaded: u64) -> BaseAddresses {
    let addr = |n: &str| obj.section_by_name(n).map_or(0, |s| s.address() + loaded);
    BaseAddresses::default()
        .set_eh_frame(addr(".eh_frame"))
        .set_eh_frame_hdr(addr(".eh_frame_hdr"))
        .set_text(addr(".text"))
        .set_got(addr(".got"))
}

fn frames(b: &mut Bench, obj: &object::File<'static>) {
    let eh = gimli::EhFrame::from(section(obj, ".eh_frame"));
    let hdr = gimli::EhFrameHdr::from(section(obj, ".eh_frame_hdr"));
    let bases = bases(obj, 0);
    let parsed = hdr.parse(&bases, 8).unwrap();
    let table = parsed.table().unwrap();
    let mut ctx = Box::new(UnwindContext::new());
    for i in 0..b.queries.len() {
        let pc = b.queries[i][0];
        let mut k = 0u64;
        if let Ok(row) = table.unwind_info_for_address(&eh, &bases, &mut ctx, pc, gimli::EhFrame::cie_from_offset) {
            if let CfaRule::RegisterAndOffset { register, offset } = row.cfa() {
                k = k.wrapping_add(row_check(register.0 as u64, *offset));
            }
            for r in SAVED {
                if let RegisterRule::Offset(o) = row.register(Register(r)) {
                    k = k.wrapping_add(saved_check(r, o));
                }
            }
        }
        b.check = b.check.wrapping_add(k);
    }
    b.items = b.queries.len() as u64;
}

type ChainLeaf = extern "C" fn(*const u64, *mut c_void);

fn run_chain(file: &str, leaf: ChainLeaf, arg: *mut c_void) {
    let path = std::ffi::CString::new(file).unwrap();
    unsafe {
        let library = libc::dlopen(path.as_ptr(), libc::RTLD_NOW);
        assert!(!library.is_null(), "cannot load {file}");
        let symbol = libc::dlsym(library, b"chain_run\0".as_ptr().cast());
        assert!(!symbol.is_null(), "{file} has no chain_run");
        let chain: extern "C" fn(ChainLeaf, *mut c_void) -> c_long = std::mem::transmute(symbol);
        chain(leaf, arg);
    }
}

struct Module {
    pc: u64,
    lo: u64,
    hi: u64,
    base: u64,
}
unsafe extern "C" fn find_module(i: *mut libc::dl_phdr_info, _n: usize, arg: *mut c_void) -> c_int {
    let (i, m) = (&*i, &mut *(arg as *mut Module));
    let (mut lo, mut hi) = (u64::MAX, 0);
    for k in 0..i.dlpi_phnum as usize {
        let p = &*i.dlpi_phdr.add(k);
        if p.p_type == libc::PT_LOAD {
            lo = lo.min(i.dlpi_addr + p.p_vaddr);
            hi = hi.max(i.dlpi_addr + p.p_vaddr + p.p_memsz);
        }
    }
    if m.pc < lo || m.pc >= hi {
        return 0;
    }
    *m = Module { pc: m.pc, lo: lo & !4095, hi, base: i.dlpi_addr };
    1
}

thread_local! {
    static READS: std::cell::Cell<u64> = const { std::cell::Cell::new(0) };
}
extern "C" fn read_memory(addr: u64, out: &mut u64) -> bool {
    READS.with(|r| r.set(r.get() + 1));
    unsafe { std::ptr::copy_nonoverlapping(addr as *const u8, out as *mut u64 as *mut u8, 8) };
    true
}

extern "C" fn at_leaf(regs: *const u64, arg: *mut c_void) {
    let b = unsafe { &mut *(arg as *mut Bench) };
    let start: [u64; 17] = unsafe { *(regs as *const [u64; 17]) };
    let mut m = Module { pc: start[16], lo: 0, hi: 0, base: 0 };
    unsafe { libc::dl_iterate_phdr(Some(find_module), &mut m as *mut Module as *mut c_void) };
    let obj = object::File::parse(map_file(&b.file)).unwrap();
    let eh = gimli::EhFrame::from(section(&obj, ".eh_frame"));
    let hdr = gimli::EhFrameHdr::from(section(&obj, ".eh_frame_hdr"));
    let bases = bases(&obj, m.base);
    let parsed = hdr.parse(&bases, 8).unwrap();
    let table = parsed.table().unwrap();
    let mut ctx = Box::new(UnwindContext::new());
    let read: extern "C" fn(u64, &mut u64) -> bool = std::hint::black_box(read_memory);
    let walks: u64 = std::env::var("BENCH_WALKS").ok().and_then(|s| s.parse().ok()).unwrap_or(2000);
    let (mut items, mut check) = (0u64, 0u64);
    let t0 = Instant::now();
    for _ in 0..walks {
        let mut r = start;
        let mut first = true;
        while r[16] >= m.lo && r[16] < m.hi {
            items += 1;
            check = check.wrapping_add(r[16] - m.lo);
            let pc = if first { r[16] } else { r[16] - 1 };
            first = false;
            let Ok(row) = table.unwind_info_for_address(&eh, &bases, &mut ctx, pc, gimli::EhFrame::cie_from_offset) else { break };
            let cfa = match row.cfa() {
                CfaRule::RegisterAndOffset { register, offset } => r[register.0 as usize].wrapping_add(*offset as u64),
                _ => break,
            };
            let mut n = r;
            n[7] = cfa;
            for &(reg, ref rule) in row.registers() {
                if let RegisterRule::Offset(o) = rule {
                    if !read(cfa.wrapping_add(*o as u64), &mut n[reg.0 as usize]) {
                        break;
                    }
                }
            }
            r = n;
        }
    }
    b.ns = t0.elapsed().as_nanos() as u64;
    (b.items, b.check) = (items, check);
    b.reads = READS.with(|r| r.get());
}

/// What a walk needs of a frame's rules, as profilers that build on gimli keep it: by program counter, in a small table that maps each to
/// one place. The return address stands below the frame's address.
#[derive(Clone, Copy)]
struct Kept {
    address: u64,
    offset: i64,       // of the frame's address from the stack pointer, or from the frame pointer
    saved: i64,        // of the caller's frame pointer from the frame's address; or NOT_SAVED
    from_frame: bool,
}
const NOT_SAVED: i64 = i64::MAX;
/// Few, as there: of fifty frames some share one. With 4093 none do here, and a frame takes a fifth of the time (docs/performance.md).
const SLOTS: u64 = 509;

fn stack_end() -> u64 {
    unsafe {
        let mut attributes = std::mem::zeroed();
        let (mut low, mut size) = (std::ptr::null_mut(), 0usize);
        libc::pthread_getattr_np(libc::pthread_self(), &mut attributes);
        libc::pthread_attr_getstack(&attributes, &mut low, &mut size);
        libc::pthread_attr_destroy(&mut attributes);
        low as u64 + size as u64
    }
}

/// The rules at an address; None where they are of a kind that is not kept.
fn kept_at(row: &gimli::UnwindTableRow<R>, address: u64) -> Option<Kept> {
    let CfaRule::RegisterAndOffset { register, offset } = row.cfa() else { return None };
    let RegisterRule::Offset(-8) = row.register(Register(16)) else { return None };
    let saved = match row.register(Register(6)) {
        RegisterRule::Offset(o) => o,
        RegisterRule::Undefined | RegisterRule::SameValue => NOT_SAVED,
        _ => return None,
    };
    matches!(register.0, 6 | 7).then_some(Kept { address, offset: *offset, saved, from_frame: register.0 == 6 })
}

extern "C" fn at_leaf_with_cache(regs: *const u64, arg: *mut c_void) {
    let b = unsafe { &mut *(arg as *mut Bench) };
    let start: [u64; 17] = unsafe { *(regs as *const [u64; 17]) };
    let mut m = Module { pc: start[16], lo: 0, hi: 0, base: 0 };
    unsafe { libc::dl_iterate_phdr(Some(find_module), &mut m as *mut Module as *mut c_void) };
    let obj = object::File::parse(map_file(&b.file)).unwrap();
    let eh = gimli::EhFrame::from(section(&obj, ".eh_frame"));
    let hdr = gimli::EhFrameHdr::from(section(&obj, ".eh_frame_hdr"));
    let bases = bases(&obj, m.base);
    let parsed = hdr.parse(&bases, 8).unwrap();
    let table = parsed.table().unwrap();
    let mut ctx = Box::new(UnwindContext::new());
    let mut cache = vec![Kept { address: u64::MAX, offset: 0, saved: NOT_SAVED, from_frame: false }; SLOTS as usize];
    let end = stack_end();
    let read = |from: u64, at: u64| (at >= from && at <= end - 8).then(|| unsafe { (at as *const u64).read_unaligned() });
    let walks: u64 = std::env::var("BENCH_WALKS").ok().and_then(|s| s.parse().ok()).unwrap_or(2000);
    let (mut items, mut check) = (0u64, 0u64);
    let t0 = Instant::now();
    for _ in 0..walks {
        let (mut pc, mut sp, mut bp) = (start[16], start[7], start[6]);
        let mut first = true;
        while pc >= m.lo && pc < m.hi {
            items += 1;
            check = check.wrapping_add(pc - m.lo);
            let address = if first { pc } else { pc - 1 };
            first = false;
            let slot = &mut cache[(address % SLOTS) as usize];
            if slot.address != address {
                let found = table.unwind_info_for_address(&eh, &bases, &mut ctx, address, gimli::EhFrame::cie_from_offset);
                let Some(kept) = found.ok().and_then(|row| kept_at(row, address)) else { break };
                *slot = kept;
            }
            let cfa = (if slot.from_frame { bp } else { sp }).wrapping_add(slot.offset as u64);
            if cfa <= sp {
                break;
            }
            let Some(caller) = read(sp, cfa.wrapping_sub(8)) else { break };
            if slot.saved != NOT_SAVED {
                let Some(frame) = read(sp, cfa.wrapping_add(slot.saved as u64)) else { break };
                bp = frame;
            }
            (pc, sp) = (caller, cfa);
        }
    }
    b.ns = t0.elapsed().as_nanos() as u64;
    (b.items, b.check) = (items, check);
}

fn play(b: &mut Bench) -> bool {
    let started = Instant::now();
    match b.job {
        'U' => units(b, &load(&b.file).1),
        'E' => entries(b, &load(&b.file).1),
        'L' => lines(b, &load(&b.file).1),
        'A' | 'B' => places(b, load(&b.file).1, started, place_at),
        'I' | 'J' => places(b, load(&b.file).1, started, chain_at),
        'F' => {
            let obj = object::File::parse(map_file(&b.file)).unwrap();
            frames(b, &obj)
        }
        'S' => {
            let file = b.file.clone();
            run_chain(&file, at_leaf, b as *mut Bench as *mut c_void)
        }
        'W' => {
            let file = b.file.clone();
            run_chain(&file, at_leaf_with_cache, b as *mut Bench as *mut c_void)
        }
        _ => return false,
    }
    unmap_files();
    true
}

/// Peak memory of this program; getrusage would count what the shell had before exec.
fn peak_kilobytes() -> u64 {
    let status = std::fs::read_to_string("/proc/self/status").unwrap_or_default();
    let peak = status.lines().find_map(|line| line.strip_prefix("VmHWM:"));
    peak.and_then(|text| text.split_whitespace().next()?.parse().ok()).unwrap_or(0)
}

fn main() {
    let a: Vec<String> = std::env::args().collect();
    let mut b = Bench { job: a[1].chars().next().unwrap(), file: a[2].clone(), ..Default::default() };
    if let Some(p) = a.get(3) {
        let raw = std::fs::read(p).unwrap();
        b.queries = raw
            .chunks_exact(24)
            .map(|c| {
                let w = |i: usize| u64::from_le_bytes(c[i * 8..i * 8 + 8].try_into().unwrap());
                [w(0), w(1), w(2)]
            })
            .collect();
    }
    let reps: usize = std::env::var("BENCH_REPS").ok().and_then(|s| s.parse().ok()).unwrap_or(1);
    let mut times = Vec::new();
    for _ in 0..reps {
        (b.items, b.check, b.ns) = (0, 0, 0);
        let t = Instant::now();
        if !play(&mut b) {
            std::process::exit(3);
        }
        let n = t.elapsed().as_nanos() as u64;
        times.push(if b.ns != 0 { b.ns } else { n });
    }
    times.sort();
    println!(
        "job={} items={} reads={} check={:016x} ns={} ns_first={} ns_cold={} ns_warm={} rss_kb={}",
        b.job, b.items, b.reads, b.check, times[times.len() / 2], b.ns_first, b.ns_cold, b.ns_warm, peak_kilobytes()
    );
}
