#include <cimcore/CIMIpConnectionTcp.h>

#include "CIMIpConnectionImpl.h"

namespace CIM {

template class TCCIMIpConnection<boost::asio::ip::tcp>;

namespace {
constexpr const char* kFile = "CIMIpConnectionTcp.cpp";
}  // namespace

TCCIMIpConnectionTcp::TCCIMIpConnectionTcp(boost::shared_ptr<TCCIMTask> task)
    : TCCIMIpConnection<boost::asio::ip::tcp>(std::move(task)) {
    Log::Info(kFile, "TCCIMIpConnectionTcp", 13, "%s", "");
}

TCCIMIpConnectionTcp::~TCCIMIpConnectionTcp() {
    Log::Info(kFile, "~TCCIMIpConnectionTcp", 17, "%s", "");
    TCCIMIpConnection<boost::asio::ip::tcp>::Disconnect();
    Log::Info(kFile, "~TCCIMIpConnectionTcp", 19, "%s", "done");
    m_WaitForLoop();
}

std::size_t TCCIMIpConnectionTcp::t_SocketSynchronousWrite(const std::vector<uint8_t>& data,
                                                           boost::system::error_code& error) {
    return m_socket.send(boost::asio::buffer(data), 0, error);
}

boost::asio::ip::tcp TCCIMIpConnectionTcp::t_CreateProtocol(bool ipv6) {
    return ipv6 ? boost::asio::ip::tcp::v6() : boost::asio::ip::tcp::v4();
}

}  // namespace CIM
