// The interface through which the stack drives one IP connection of a CI
// module's low-speed-communication resource.
#ifndef CIMCORE_CIMIPCONNECTION_H
#define CIMCORE_CIMIPCONNECTION_H

#include <cimcore/Export.h>
#include <cstddef>
#include <cstdint>
#include <vector>

#include <boost/function.hpp>
#include <boost/optional/optional.hpp>
#include <boost/system/error_code.hpp>

#include <cimcore/CIMIpConnectionTypes.h>

namespace CIM {

// A connection's completion callback: the error (103, connection aborted, for
// a call on an unconnected object; 125, operation aborted, for a read that
// timed out) and the number of bytes moved.
using TCIMIpDataCallback = boost::function<void(const boost::system::error_code&, std::size_t)>;

// One TCP or UDP connection, or one IPv4 multicast reception.
//
// Call order: Connect (or ConnectMulticast), any number of SendData and
// ReadData, Disconnect, destroy; IsConnected and GetSourcePort at any time.
// The calls come from the owner's thread. Completion callbacks run on the
// loop of the task the connection was built on, except that SendData and
// ReadData on an unconnected object call back at once, with error 103.
class CIM_EXPORT TICIMIpConnection {
public:
    virtual ~TICIMIpConnection() = default;

    // `timeoutSeconds` 0 connects synchronously; otherwise waits at most that
    // long, plus up to 3 seconds for the cancelled attempt to end. Never
    // throws; a failure is only logged. Must not be called on the task's
    // thread.
    virtual bool Connect(const UniCastDescriptor& descriptor, unsigned char timeoutSeconds) = 0;
    virtual bool ConnectMulticast(const MultiCastDescriptor& descriptor) = 0;
    virtual void Disconnect() = 0;
    // Sends the whole buffer at once on the caller's thread; the callback is
    // posted to the task's loop.
    virtual void SendData(const std::vector<uint8_t>& data, TCIMIpDataCallback callback) = 0;
    // Receives at most data.size() bytes into `data`, which must live until
    // the callback has run. With a time-out in milliseconds, a read that gets
    // nothing in time completes with error 125.
    virtual void ReadData(std::vector<uint8_t>& data, boost::optional<uint16_t> timeoutMs,
                          TCIMIpDataCallback callback) = 0;
    // The local port, 0 when not connected.
    virtual uint16_t GetSourcePort() = 0;
    virtual bool IsConnected() = 0;
};

}  // namespace CIM

#endif
