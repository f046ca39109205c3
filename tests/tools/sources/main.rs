// SPDX-License-Identifier: Apache-2.0
use std::collections::HashMap;

fn main() {
    let mut seen: HashMap<String, u32> = HashMap::new();
    for argument in std::env::args() {
        *seen.entry(argument).or_insert(0) += 1;
    }
    println!("{:?}", seen);
}
