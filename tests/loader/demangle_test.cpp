// SPDX-License-Identifier: Apache-2.0
//
// Names of C++, Rust and D. What compilers write is held against other tools by the tests of the program; here is what
// they do not write.
#include "korva.hpp"

#include <gtest/gtest.h>

#include <chrono>

namespace
{

std::string times(size_t count, const std::string &text)
{
    std::string all;
    while (count-- > 0)
        all += text;
    return all;
}

// Names where each step refers twice to the step before: 2^levels of the first.
std::string twice_in_rust(size_t levels)
{
    static constexpr char DIGITS[] = "0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ";
    const auto reference = [](size_t to) { // 0 would be "_", and nothing is that small
        std::string digits;
        for (size_t n = to - 1; n != 0 || digits.empty(); n /= 62)
            digits.insert(digits.begin(), DIGITS[n % 62]);
        return "B" + digits + "_";
    };
    std::string name = "IC1aTuuE";
    for (size_t i = 0, before = 4; i < levels; ++i) {
        const size_t here = name.size();
        name += "T" + reference(before) + reference(before) + "E";
        before = here;
    }
    return "_R" + name + "E";
}

std::string twice_in_d(size_t levels)
{
    const auto reference = [](size_t back) {
        std::string digits(1, static_cast<char>('a' + back % 26));
        for (size_t n = back / 26; n != 0; n /= 26)
            digits.insert(digits.begin(), static_cast<char>('A' + n % 26));
        return "Q" + digits;
    };
    std::string name = "_D1fFS1a";
    for (size_t i = 0, before = 5; i < levels; ++i) {
        const size_t here = name.size();
        name += "H"; // an associative array
        for (int part = 0; part < 2; ++part)
            name += reference(name.size() - before);
        before = here;
    }
    return name + "Zv";
}

TEST(Demangle, NamesOfEveryLanguage)
{
    const struct {
        std::string mangled, plain;
    } table[] = {
        {"_ZN1AC1Ev", "A::A()"},
        {"_Z1fv.part.0", "f() [clone .part.0]"},
        {"_GLOBAL__I_f", "global constructors keyed to f"},
        {"_ZN4core3fmt9Formatter3pad17h1234567890abcdefE", "core::fmt::Formatter::pad"},
        {"_ZN4core3fmt9Formatter3pad17h1234567890abcdefE.llvm.1234", "core::fmt::Formatter::pad"},
        {"_RNCNvC1a4main0B3_", "a::main::{closure#0}"},
        {"_RNvXs_C1aNtB4_1bNtC1c1d1e", "<a::b as c::d>::e"},
        {"_RNCNCNvC1a4main00", "a::main::{closure#0}::{closure#0}"}, // two lengths of no name
        {"_RIC1aFG_UKCRL0_mEuDNtC1b1cp1dhEL_Aij7b_E",
         "a::<for<'a> unsafe extern \"C\" fn(&'a u32), dyn b::c<d = u8>, [isize; 123]>"},
        {twice_in_rust(1), "a::<((), ()), (((), ()), ((), ()))>"},
        {"_D4test3fooFiZv", "test.foo(int)"},
        {twice_in_d(2), "f(a, a[a], a[a][a[a]])"},
        {"_Dmain", "D main"},
        // No names; names of types alone, which C functions may be called; cut, and without end.
        {"i", ""},
        {"_Z", ""},
        {"_R", ""},
        {"_RNv", ""},
        {"_RIC1a", ""},
        {"_RNvC1a9", ""},
        {"_RNvB0_1a", ""},
        {"_D", ""},
        {"_D1", ""},
        {"_DQz", ""},
        {"_D99999999999999999999a", ""},
    };
    for (const auto &[mangled, plain] : table)
        EXPECT_EQ(korva::demangle(mangled.c_str()), plain) << mangled;
}

TEST(Demangle, WhatDoesNotFitIsCut)
{
    const std::string whole = "A::A()";
    for (size_t size = 0; size <= whole.size() + 1; ++size) {
        std::string buffer(whole.size() + 2, '#');
        EXPECT_EQ(korva_elf_demangle("_ZN1AC1Ev", buffer.data(), size), whole.size());
        const std::string expected = size == 0 ? "" : whole.substr(0, size - 1) + '\0';
        EXPECT_EQ(buffer, expected + std::string(buffer.size() - expected.size(), '#')) << size;
    }
    const std::string same = "_RNvC1a" + std::to_string(500) + "_" + std::string(500, 'x');
    EXPECT_EQ(korva::demangle(same.c_str()), "a::" + std::string(500, 'x')); // beyond what is tried first
}

TEST(Demangle, NamesThatStandForGigabytesAreNone)
{
    const std::string table[] = {
        twice_in_rust(40),
        twice_in_d(60),
        "_RIC1aFGzzzzzzz_EuE",                                // 62^7 lifetimes
        "_RIC1a" + times(8000, "T") + times(8000, "E") + "E", // deep
        "_RIC1aTuB5_E",                                       // refers into itself
        "_Z1fDv" + times(300, "PFvS_S_E"),
        "_Z" + std::to_string(100000) + std::string(100000, 'a') + "v",
        "_Z1f" + times(20000, "P") + "v",
        "_D1fF" + times(20000, "P") + "vZv",
        "_D" + times(40000, "1a"),
    };
    const auto start = std::chrono::steady_clock::now();
    for (const std::string &name : table)
        EXPECT_EQ(korva::demangle(name.c_str()), "") << name.substr(0, 60);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(1));
}

} // namespace
