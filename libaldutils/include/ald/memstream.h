// SPDX-License-Identifier: MIT
#pragma once
// An output stream that writes into a growable character vector.
#include <ald/string_view.h>

#include <cstddef>
#include <ostream>
#include <streambuf>
#include <vector>

namespace ald {

// A new buffer holds 513 zero characters and its put area covers the first
// 512, so a line of up to 512 characters costs one allocation and still has
// room for the NUL that terminated_view() stores after it. A longer text
// grows the vector (doubling); nothing written is ever cut.
template <class CharT>
class basic_membuf : public std::basic_streambuf<CharT> {
public:
    using traits_type = typename std::basic_streambuf<CharT>::traits_type;
    using int_type = typename traits_type::int_type;

    static constexpr std::size_t initial_put_area = 512;

    basic_membuf() : vector_(initial_put_area + 1, CharT()) {
        this->setp(vector_.data(), vector_.data() + initial_put_area);
    }
    basic_membuf(const basic_membuf&) = delete;
    basic_membuf& operator=(const basic_membuf&) = delete;

    // Characters written so far.
    std::size_t size() const noexcept { return static_cast<std::size_t>(this->pptr() - this->pbase()); }

    // Stores a NUL right after the text and returns a view of the text
    // without it. A buffer without storage, or with no text, gives the empty
    // view.
    basic_string_view<CharT> terminated_view() {
        if (vector_.empty()) return {};
        std::size_t n = size();
        vector_[n] = CharT();
        if (n == 0) return {};
        return basic_string_view<CharT>(vector_.data(), static_cast<std::uint32_t>(n));
    }

protected:
    int_type overflow(int_type ch) override {
        if (traits_type::eq_int_type(ch, traits_type::eof())) return traits_type::not_eof(ch);
        std::size_t n = size();
        vector_.resize(vector_.size() * 2, CharT());
        // One character past the put area always stays free for the NUL.
        this->setp(vector_.data(), vector_.data() + vector_.size() - 1);
        this->pbump(static_cast<int>(n));
        *this->pptr() = traits_type::to_char_type(ch);
        this->pbump(1);
        return ch;
    }

private:
    std::vector<CharT> vector_;
};

template <class CharT>
class basic_memstream : public std::basic_ostream<CharT> {
public:
    basic_memstream() : std::basic_ostream<CharT>(nullptr) { this->init(&buf_); }
    std::size_t size() const noexcept { return buf_.size(); }
    basic_string_view<CharT> terminated_view() { return buf_.terminated_view(); }

private:
    basic_membuf<CharT> buf_;
};

using memstream = basic_memstream<char>;

}  // namespace ald
