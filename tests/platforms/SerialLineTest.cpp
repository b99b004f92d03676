// Supervision of one serial line on a clock the test drives: an adapter
// played by pseudo-terminals behind a symlinked path, as udev names a USB
// adapter, that is unplugged, hung up, replaced or not openable at all.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "support/InProcessGate.h"
#include "support/PtyPair.h"
#include "support/TempDir.h"
#include "support/UdpEndpoint.h"
#include "vostrelka/SerialLine.h"

using namespace test_support;
using vostrelka::drivers::SerialLine;
using vostrelka::drivers::SerialPort;

namespace {

constexpr int64_t T0_US = 50000000;
constexpr int64_t RETRY_US = SerialLine::RETRY_PERIOD_US;

struct SerialLineTest : testing::Test {
    Lines at(int64_t now_us) {
        return log_lines_of([&] { line.supervise(now_us); });
    }
    void plug(const PtyPair& pty) {
        unlink(path.c_str());
        ASSERT_EQ(symlink(pty.slave_path().c_str(), path.c_str()), 0);
    }

    TempDir dir;
    const std::string path = dir.path() + "/ttyADAPTER";
    std::shared_ptr<SerialPort> port = std::make_shared<SerialPort>();
    SerialLine line{port, 1, 115200, path};
};

}  // namespace

// Both ways a line goes: the adapter's node loses its mode bits, or the far
// end hangs up and leaves a descriptor that is always readable. Either is said once;
// the line comes back on a new terminal under the same name, no sooner than
// a retry period after it went, and carries bytes both ways again.
TEST_F(SerialLineTest, UnpluggedOrHungUpLineIsClosedOnceAndReopenedWhenItsPathIsBack) {
    PtyPair first, second, third;
    plug(first);
    EXPECT_EQ(at(T0_US), Lines{"Serial port " + path + " connecting"});
    EXPECT_EQ(at(T0_US + 1), Lines{});
    EXPECT_FALSE(line.lost());

    ASSERT_EQ(chmod(first.slave_path().c_str(), 0) | unlink(path.c_str()), 0);
    EXPECT_TRUE(line.lost());
    EXPECT_EQ(at(T0_US + 2), Lines{"Serial port " + path + " disconnected"});
    EXPECT_TRUE(line.awaiting_reopen());
    plug(second);
    EXPECT_EQ(at(T0_US + 3), Lines{});
    EXPECT_EQ(at(T0_US + 2 + RETRY_US), Lines{"Serial port " + path + " connecting"});

    uint8_t byte = 0;
    EXPECT_EQ(port->read(&byte, 1), 0);  // an empty line is no hang-up
    EXPECT_FALSE(line.lost());
    second.hang_up();
    unlink(path.c_str());  // with its link, whose number another terminal may get
    EXPECT_EQ(port->read(&byte, 1), 0);  // and now it is
    EXPECT_EQ(at(T0_US + 3 * RETRY_US), Lines{"Serial port " + path + " disconnected"});
    EXPECT_EQ(at(T0_US + 4 * RETRY_US), Lines{});
    plug(third);
    EXPECT_EQ(at(T0_US + 5 * RETRY_US), Lines{"Serial port " + path + " connecting"});
    ASSERT_EQ(port->write(reinterpret_cast<const uint8_t*>("ab"), 2), 2);
    EXPECT_EQ(third.read_master(2), (Bytes{'a', 'b'}));
    ASSERT_TRUE(third.write_master({'c'}));
    ASSERT_TRUE(wait_readable(port->get_fd()));
    EXPECT_EQ(port->read(&byte, 1), 1);
    EXPECT_EQ(byte, 'c');
}

// A path that is there but is no terminal. The factory's first open says
// what the port said and the error; the loop's retries of the same reason
// stay quiet, another reason is logged with "connecting" in between, and
// nothing is tried more than once per retry period.
TEST_F(SerialLineTest, FailingOpenIsLoggedWhenItStartsOrChangesAndRetriedOncePerPeriod) {
    ASSERT_EQ(symlink(dir.write_file("not-a-tty", "").c_str(), path.c_str()), 0);
    EXPECT_EQ(log_lines_of([&] { EXPECT_FALSE(line.open()); }),
              (Lines{"SerialPort: ERROR: tcgetattr: Inappropriate ioctl for device",
                     "SerialPort: ERROR: setting default port configuration: Inappropriate ioctl for device",
                     "ERROR: open serial port: " + path}));
    EXPECT_EQ(at(T0_US), Lines{});
    EXPECT_EQ(at(T0_US + RETRY_US), Lines{});

    unlink(path.c_str());
    ASSERT_EQ(mkdir(path.c_str(), 0700), 0);
    EXPECT_EQ(at(T0_US + 2 * RETRY_US - 1), Lines{});
    EXPECT_EQ(at(T0_US + 2 * RETRY_US),
              (Lines{"SerialPort: ERROR: opening port \"" + path + "\": Is a directory",
                     "Serial port " + path + " connecting", "ERROR: open serial port: " + path}));
    EXPECT_EQ(at(T0_US + 3 * RETRY_US), Lines{});

    rmdir(path.c_str());
    PtyPair pty;
    plug(pty);
    EXPECT_EQ(at(T0_US + 4 * RETRY_US), Lines{"Serial port " + path + " connecting"});
    EXPECT_FALSE(line.awaiting_reopen());
}
