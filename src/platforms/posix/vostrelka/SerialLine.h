#pragma once
// One configured serial line: its port with the path, rate and stop bits it
// is opened with, whether the line is still there, and how it is reopened.
//
// A line is lost when its adapter is unplugged (the descriptor's mode reads
// as empty) or its far end hangs up (POLLHUP or POLLERR).
// A lost line is closed with one log line and reopened when its path is
// back, at most once per RETRY_PERIOD_US; a failing open is logged when it
// starts failing and again only when its reason changes.
#include <cstdint>
#include <memory>
#include <string>

#include "vostrelka/SerialPort.h"

namespace vostrelka {
namespace drivers {

class SerialLine {
public:
    static constexpr int64_t RETRY_PERIOD_US = 1000000;

    SerialLine(std::shared_ptr<SerialPort> port, int stop_bits, long baud_rate, std::string path);

    // The first open, with every failure logged; a line that does not open
    // is left to supervise().
    bool open();
    // Closes the line when it is lost and reopens it when its path exists
    // and its retry time has come; `now_us` is time_us().
    void supervise(int64_t now_us);
    // The port is open and its line is gone.
    bool lost() const;
    bool awaiting_reopen() const { return !port->is_open(); }
    // When supervise() next tries to reopen a closed line (time_us()).
    int64_t next_attempt() const { return next_attempt_us; }

    const std::shared_ptr<SerialPort>& get_port() const { return port; }
    const std::string& get_path() const { return path; }
    long get_baud_rate() const { return baud_rate; }
    int get_stop_bits() const { return stop_bits; }

private:
    bool open_and_configure(bool reopening);

    std::shared_ptr<SerialPort> port;
    int stop_bits;
    long baud_rate;
    std::string path;
    int64_t next_attempt_us = 0;
    // The failure already logged; repeats of it stay quiet.
    SerialPort::OpenFailure logged_failure;
};

}  // namespace drivers
}  // namespace vostrelka
