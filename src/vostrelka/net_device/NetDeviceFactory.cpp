#include "vostrelka/net_device/NetDeviceFactory.h"

#include "vostrelka/SerialPort.h"

namespace vostrelka {
namespace net_device {

NetDeviceFactory::NetDeviceFactory() { serial_port_records.reserve(24); }

}  // namespace net_device
}  // namespace vostrelka
