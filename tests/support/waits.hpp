#pragma once
// What every test program needs: waiting until something holds, timing, and the text of what
// a call throws.
#include <chrono>
#include <exception>
#include <string>
#include <thread>

#include <gtest/gtest.h>

namespace duvo::test {

using namespace std::chrono_literals;

/// Waits until check() holds; false when the time is up.
template <class Check>
bool eventually(Check check, std::chrono::milliseconds within = 10000ms) {
    for (const auto end = std::chrono::steady_clock::now() + within;; std::this_thread::sleep_for(2ms)) {
        if (check()) return true;
        if (std::chrono::steady_clock::now() >= end) return false;
    }
}

inline double msSince(std::chrono::steady_clock::time_point start) {
    return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
}

/// The text of the E that f() throws, or "" when it returns.
template <class E = std::exception, class F>
std::string failure(F f) {
    try {
        f();
        return "";
    } catch (const E& e) {
        return e.what();
    }
}

inline ::testing::AssertionResult startsWith(const std::string& text, const std::string& prefix) {
    if (text.rfind(prefix, 0) == 0) return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << "\"" << text << "\" does not begin with \"" << prefix << "\"";
}

} // namespace duvo::test
