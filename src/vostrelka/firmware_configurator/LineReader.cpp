#include "vostrelka/firmware_configurator/LineReader.h"

#include <unistd.h>

#include <cstring>

#include "vostrelka/debug.h"

namespace vostrelka {
namespace firmware_configurator {

LineReader::Result LineReader::next(ConstSlice<char>& line) {
    for (;;) {
        if (stopped_ != Result::LINE) return stopped_;

        const char* newline = static_cast<const char*>(std::memchr(buffer_ + start_, '\n', used_ - start_));
        if (newline != nullptr) {
            line = ConstSlice<char>(buffer_ + start_, static_cast<uint64_t>(newline - (buffer_ + start_)));
            start_ = static_cast<size_t>(newline - buffer_) + 1;
            return Result::LINE;
        }
        if (end_of_file_) {
            stopped_ = Result::END;
            continue;
        }

        std::memmove(buffer_, buffer_ + start_, used_ - start_);
        used_ -= start_;
        start_ = 0;
        if (used_ == BUFFER_SIZE) {
            debug("ERROR: buffer overflow");
            stopped_ = Result::OVERFLOW;
            continue;
        }

        const size_t asked = BUFFER_SIZE - used_;
        const ssize_t got = read(fd_, buffer_ + used_, asked);
        if (got < 0) {
            debug("ERROR: reading file: %i", static_cast<int>(got));
            stopped_ = Result::READ_ERROR;
            continue;
        }
        used_ += static_cast<size_t>(got);
        if (static_cast<size_t>(got) < asked) {
            // got < asked leaves room for the newline.
            if (used_ > 0 && buffer_[used_ - 1] != '\n') buffer_[used_++] = '\n';
            if (got == 0) end_of_file_ = true;
        }
    }
}

bool split_key_value(ConstSlice<char> line, ConstSlice<char>& key, ConstSlice<char>& value) {
    if (line.size == 0 || line[0] == '#') return false;
    const char* space = static_cast<const char*>(std::memchr(line.data, ' ', line.size));
    if (space == nullptr) return false;
    const uint64_t key_len = static_cast<uint64_t>(space - line.data);
    key = ConstSlice<char>(line.data, key_len);
    value = ConstSlice<char>(space + 1, line.size - key_len - 1);
    return true;
}

}  // namespace firmware_configurator
}  // namespace vostrelka
