#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Makes the files that the contest runs on. The same arguments give the same sources.

usage: corpus.py DIR [UNITS]

  cxx-gcc, cxx-clang  UNITS (40) C++ units that use the standard library, DWARF 4
  c-many              15 times as many small C units
  NAME-5              each of these as DWARF 5
  libchain.so         a chain of 50 calls among 1500 functions, for walking the stack; libchain-fp.so has frame pointers

Only what every contestant can take whole. Section groups are dissolved before linking, so that every copy of an inline
function is kept: a linker that drops one leaves its lines at address 0. Arguments are not pushed one by one around
calls: that makes DW_CFA_GNU_args_size, which libkorva refuses.
"""
import concurrent.futures
import os
import random
import shutil
import subprocess
import sys

CXX = """\
#include <algorithm>
#include <map>
#include <memory>
#include <string>
#include <vector>
namespace unit_{i} {{
enum class colour : unsigned char {{ red, green = {a}, blue = {b} }};
struct point {{ double x, y; colour c; bool operator<(const point &o) const {{ return x < o.x; }} }};
struct shape {{ virtual ~shape() = default; virtual double area(int n) const = 0; std::string name; }};
template <int N> struct polygon : shape {{
  std::vector<point> corners;
  double area(int n) const override {{
    double sum = n;
    for (const point &p : corners) sum += p.x * p.y + N;
    return sum;
  }}
}};
static std::map<std::string, std::unique_ptr<shape>> shapes;
int sort(std::vector<point> &v) {{ std::sort(v.begin(), v.end()); return v.size() > {a} ? int(v[{a}].x) : {b}; }}
double add(int n, const std::string &name) {{
  std::unique_ptr<shape> made;
  if (n % 2) made = std::make_unique<polygon<{a}>>(); else made = std::make_unique<polygon<{b}>>();
  made->name = name + std::to_string(n);
  auto &slot = shapes[made->name];
  slot = std::move(made);
  double sum = 0;
  for (const auto &[key, value] : shapes) {{ (void)key; sum += value->area(n); }}
  return sum;
}}
}}
"""

C = """\
struct node_{i} {{ struct node_{i} *next; int key; unsigned char tag[{a}]; }};
static int walk_{i}(const struct node_{i} *n, int limit)
{{
    int sum = 0;
    for (; n && limit > 0; n = n->next, --limit)
        sum += n->key * {b} + n->tag[{a} - 1];
    return sum;
}}
int entry_{i}(struct node_{i} *head, int count)
{{
    struct node_{i} extra = {{head, count, {{0}}}};
    for (int i = 0; i < count; ++i)
        extra.tag[i % {a}] = (unsigned char)(i * {b});
    return walk_{i}(&extra, count) + walk_{i}(head, {b});
}}
"""

CHAIN_HEAD = """\
#include <stdint.h>
#define APART __attribute__((noinline, noclone))
struct visit { void (*leaf)(const uint64_t *, void *); void *arg; };
static volatile long sink;
static APART long touch(long x) { sink += x; return sink; }
static APART void keep(void *p) { __asm__ volatile("" : : "r"(p) : "memory"); }
static APART long leaf(struct visit *v, long a)
{
    uint64_t regs[17] = {0};
    __asm__ volatile("movq %%rbx, 24(%0)\\n\\tmovq %%rbp, 48(%0)\\n\\tmovq %%rsp, 56(%0)\\n\\tmovq %%r12, 96(%0)\\n\\t"
                     "movq %%r13, 104(%0)\\n\\tmovq %%r14, 112(%0)\\n\\tmovq %%r15, 120(%0)\\n\\t"
                     "leaq 0(%%rip), %%rax\\n\\tmovq %%rax, 128(%0)" : : "r"(regs) : "rax", "memory");
    v->leaf(regs, v->arg);
    return touch(a) + (long)(regs[16] & 1);
}
"""


def write(path, text):
    with open(path, "w") as f:
        f.write(text)


def chain(functions=1500, depth=50):
    r = random.Random(1)
    order = sorted(r.sample(range(functions), depth))
    below = dict(zip(order, order[1:]))
    text = CHAIN_HEAD + "".join(f"long step_{i}(struct visit *, long);\n" for i in range(functions))
    for i in range(functions):
        call = f"step_{below[i]}(v, a + 1)" if i in below else "leaf(v, a)" if i == order[-1] else "touch(a)"
        live = range(r.randint(1, 6))  # values that survive the call, in saved registers
        before = r.choice(["", "", f"char room[{8 * r.randint(1, 40)}]; keep(room); ",
                           "char room[(a & 7) * 16 + 16]; keep(room); "])
        text += f"APART long step_{i}(struct visit *v, long a)\n{{\n    {before}"
        text += "".join(f"long v{k} = touch(a + {k}); " for k in live)
        text += f"\n    long r = {call};\n    {'keep(room); ' if before else ''}"
        text += "return r + touch(" + " + ".join(f"v{k}" for k in live) + ");\n}\n"
    return text + ("long chain_run(void (*leaf_)(const uint64_t *, void *), void *arg)\n"
                   f"{{ struct visit v = {{leaf_, arg}}; return touch(step_{order[0]}(&v, 1)) + 1; }}\n")


def run(*command):
    subprocess.run(command, check=True)


def compile_unit(command, source, made):
    if not os.path.exists(made):
        run(*command, "-c", source, "-o", made + ".tmp")
        run("objcopy", "-R", ".group", made + ".tmp", made)
        os.remove(made + ".tmp")


def main():
    if len(sys.argv) not in (2, 3):
        sys.exit(__doc__)
    top, units = sys.argv[1], int(sys.argv[2]) if len(sys.argv) == 3 else 40
    kinds = [(name, version) for name in ("gcc", "clang", "c") for version in (4, 5)]
    for folder in ("src", *(f"{name}{version}" for name, version in kinds)):
        os.makedirs(os.path.join(top, folder), exist_ok=True)
    os.chdir(top)
    r = random.Random(2)
    pool = concurrent.futures.ThreadPoolExecutor(os.cpu_count())
    jobs, files = [], {kind: [] for kind in kinds}
    main_source = "src/main.c"
    write(main_source, "int main(void) { return 0; }\n")
    compilers = {"gcc": "g++ -O2 -std=c++17 -maccumulate-outgoing-args -fno-gnu-unique",
                 "clang": "clang++ -O1 -std=c++17 -gdwarf-aranges -mllvm -no-x86-call-frame-opt",
                 "c": "gcc -O1"}
    for name, version in kinds:
        command = compilers[name]
        if shutil.which(command.split()[0]) is None:
            print(f"corpus: no {command.split()[0]}, so no {name}", file=sys.stderr)
            continue
        count = units * 15 if name == "c" else units
        for i in range(count):
            source = f"src/{'c' if name == 'c' else 'cxx'}_{i}.{'c' if name == 'c' else 'cc'}"
            if not os.path.exists(source):
                write(source, (C if name == "c" else CXX).format(i=i, a=r.randint(2, 9), b=r.randint(10, 99)))
            made = f"{name}{version}/{i}.o"
            files[name, version].append(made)
            full = command.split() + [f"-gdwarf-{version}", "-fno-pie", "-w"]
            jobs.append(pool.submit(compile_unit, full, source, made))
    for job in jobs:
        job.result()
    run("gcc", "-g0", "-c", main_source, "-o", "src/main.o")
    names = {"gcc": "cxx-gcc", "clang": "cxx-clang", "c": "c-many"}
    for (name, version), objects in files.items():
        if objects:
            out = names[name] + ("" if version == 4 else f"-{version}")
            run("gcc" if name == "c" else "g++", "-no-pie", "-o", out, "src/main.o", *objects)
    write("src/chain.c", chain())
    for out, flag in (("libchain.so", "-fomit-frame-pointer"), ("libchain-fp.so", "-fno-omit-frame-pointer")):
        run("gcc", "-O2", flag, "-fno-optimize-sibling-calls", "-fcf-protection=none", "-w", "-fPIC", "-shared", "-o", out,
            "src/chain.c")


main()
