#pragma once
// Text lines of a device's key/value files, read through one fixed buffer.
#include <cstddef>
#include <cstdint>

#include "vostrelka/Slice.h"

namespace vostrelka {
namespace firmware_configurator {

// Memory bound: the 128-byte buffer below; a line must fit in it with its
// newline. Logs "ERROR: buffer overflow" for a longer line and
// "ERROR: reading file: %i" for a failed read; both end the reading.
class LineReader {
public:
    static constexpr size_t BUFFER_SIZE = 128;

    enum class Result {
        LINE,        // `line` holds the next line, without its newline
        END,         // end of file after the last line
        OVERFLOW,    // a line filled the whole buffer
        READ_ERROR,  // read() failed
    };

    explicit LineReader(int fd) : fd_(fd) {}

    // The next line; after anything but LINE, keeps returning that result.
    // A last line without a newline still counts: a read that returns fewer
    // bytes than asked gets a newline added when its data does not end in one.
    Result next(ConstSlice<char>& line);

private:
    int fd_;
    char buffer_[BUFFER_SIZE];
    size_t used_ = 0;   // bytes in the buffer
    size_t start_ = 0;  // first byte not yet handed out
    bool end_of_file_ = false;
    Result stopped_ = Result::LINE;  // sticky end result once reading stopped
};

// Splits a line into its key (text before the first space) and value
// (everything after that space). False for a comment ('#' first), an empty
// line and a line without a space, which the files skip.
bool split_key_value(ConstSlice<char> line, ConstSlice<char>& key, ConstSlice<char>& value);

}  // namespace firmware_configurator
}  // namespace vostrelka
