#pragma once

// The program's insides are local to its one source file: tests of them take the whole file in.
#define main console_main
#include "app/zeb_mqtt_console.cpp"
#undef main

#include <gtest/gtest.h>

#include <string>

namespace {

// What a call prints on standard output.
template <typename Call>
std::string printed(const Call &call) {
    testing::internal::CaptureStdout();
    call();
    return testing::internal::GetCapturedStdout();
}

}  // namespace
