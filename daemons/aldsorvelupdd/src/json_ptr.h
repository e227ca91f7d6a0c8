// SPDX-License-Identifier: MIT
#pragma once
// The daemon's one type: an owning handle of a JSON value.
#include <jansson.h>

// Owns exactly one reference to a JSON value, released with json_decref on
// every way out of its scope. Never copied.
class json_ptr {
public:
    explicit json_ptr(json_t* value) noexcept : value_(value) {}
    ~json_ptr() { json_decref(value_); }
    json_ptr(const json_ptr&) = delete;
    json_ptr& operator=(const json_ptr&) = delete;

    json_t* get() const noexcept { return value_; }
    explicit operator bool() const noexcept { return value_ != nullptr; }

private:
    json_t* value_;
};
