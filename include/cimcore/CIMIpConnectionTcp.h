// The TCP connection of a CI module's low-speed-communication resource.
#ifndef CIMCORE_CIMIPCONNECTIONTCP_H
#define CIMCORE_CIMIPCONNECTIONTCP_H

#include <cimcore/Export.h>
#include <boost/asio/ip/tcp.hpp>

#include <cimcore/internal/CIMIpConnection.h>

namespace CIM {

extern template class TCCIMIpConnection<boost::asio::ip::tcp>;

// A TCCIMIpConnection over TCP; every operation is the template's. A send
// that the stack accepts only in part is not repeated: the callback's byte
// count tells the caller what is left. ConnectMulticast returns false.
class CIM_EXPORT TCCIMIpConnectionTcp : public TCCIMIpConnection<boost::asio::ip::tcp> {
public:
    explicit TCCIMIpConnectionTcp(boost::shared_ptr<TCCIMTask> task);
    // Shuts the socket down and closes it before the template's destructor
    // runs.
    ~TCCIMIpConnectionTcp() override;

protected:
    std::size_t t_SocketSynchronousWrite(const std::vector<uint8_t>& data,
                                         boost::system::error_code& error) override;
    boost::asio::ip::tcp t_CreateProtocol(bool ipv6) override;
};

}  // namespace CIM

#endif
