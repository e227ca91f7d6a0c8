// SPDX-License-Identifier: MIT
#pragma once
// The log statement: a level (error, warning or info), a printf-style format
// and its arguments. The file's base name is fixed at compile time; the line
// and the plain function name are filled in here.
#include <ald/log.h>

#define ALD_LOG(lvl, ...)                                                                     \
    do {                                                                                      \
        constexpr ::ald::basic_string_view<char> ald_log_file_ = ::ald::base_name(__FILE__); \
        ::ald::log::print(0, ::ald::log::level::lvl, ald_log_file_, __LINE__,                 \
                          ::ald::basic_string_view<char>(__func__, sizeof(__func__) - 1),     \
                          __VA_ARGS__);                                                       \
    } while (0)
