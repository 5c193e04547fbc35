#include <cimcore/CIMIpConnectionUdp.h>

#include "CIMIpConnectionImpl.h"

#include <boost/asio/ip/multicast.hpp>

#include <netinet/in.h>

namespace CIM {

template class TCCIMIpConnection<boost::asio::ip::udp>;

namespace {

constexpr const char* kFile = "CIMIpConnectionUdp.cpp";

// An IPv4 source-filter record (group, interface, source) for
// IP_ADD_SOURCE_MEMBERSHIP and IP_BLOCK_SOURCE, which Asio does not offer.
// The interface is left to the system.
template <int Name>
class SourceFilterOption {
public:
    SourceFilterOption(const boost::asio::ip::address_v4& group,
                       const boost::asio::ip::address_v4& source)
        : m_value() {
        m_value.imr_multiaddr.s_addr = htonl(group.to_uint());
        m_value.imr_interface.s_addr = htonl(INADDR_ANY);
        m_value.imr_sourceaddr.s_addr = htonl(source.to_uint());
    }
    template <typename Protocol>
    int level(const Protocol&) const {
        return IPPROTO_IP;
    }
    template <typename Protocol>
    int name(const Protocol&) const {
        return Name;
    }
    template <typename Protocol>
    const void* data(const Protocol&) const {
        return &m_value;
    }
    template <typename Protocol>
    std::size_t size(const Protocol&) const {
        return sizeof m_value;
    }

private:
    ip_mreq_source m_value;
};

}  // namespace

TCCIMIpConnectionUdp::TCCIMIpConnectionUdp(boost::shared_ptr<TCCIMTask> task)
    : TCCIMIpConnection<boost::asio::ip::udp>(std::move(task)),
      m_multicastEndpoint(boost::asio::ip::udp::v4(), 0),
      m_senderEndpoint(boost::asio::ip::udp::v4(), 0) {
    Log::Info(kFile, "TCCIMIpConnectionUdp", 57, "%s", "");
}

TCCIMIpConnectionUdp::~TCCIMIpConnectionUdp() {
    Log::Info(kFile, "~TCCIMIpConnectionUdp", 61, "%s", "");
    TCCIMIpConnectionUdp::Disconnect();
    Log::Info(kFile, "~TCCIMIpConnectionUdp", 63, "%s", "done");
    m_WaitForLoop();
}

bool TCCIMIpConnectionUdp::ConnectMulticast(const MultiCastDescriptor& descriptor) {
    namespace ip = boost::asio::ip;
    if (descriptor.destinationType == IPv6) {
        Log::Info(kFile, "ConnectMulticast", 69, "%s",
                  "IP v6 is not supported. LSCv4 is obliged to support IGMPv3 which supports "
                  "multicast via IP v4 only.");
        return false;
    }
    if (descriptor.destinationType != IPv4) {
        Log::Info(kFile, "ConnectMulticast", 75, "%s", "Illegal destination type");
        return false;
    }
    m_multicastGroup = descriptor.group;
    m_socket.open(t_CreateProtocol(false));
    try {
        m_socket.set_option(boost::asio::socket_base::reuse_address(true));
        m_socket.bind(ip::udp::endpoint(ip::address_v4::any(), descriptor.port));
        m_multicastEndpoint =
            ip::udp::endpoint(ip::make_address(descriptor.group), descriptor.port);
    } catch (...) {
        // Not yet marked connected, so no Disconnect would close it: close
        // the socket opened here, leaving the object reusable.
        boost::system::error_code ignored;
        m_socket.close(ignored);
        throw;
    }
    // SHARP-EDGE: marked connected before any membership; if none was taken, Disconnect throws.
    t_connected = true;

    const ip::address_v4 group = ip::make_address_v4(descriptor.group);
    if (descriptor.join && !descriptor.sources.empty()) {
        for (const std::string& source : descriptor.sources) {
            m_socket.set_option(
                SourceFilterOption<IP_ADD_SOURCE_MEMBERSHIP>(group, ip::make_address_v4(source)));
        }
    } else {
        m_socket.set_option(ip::multicast::join_group(group));
        for (const std::string& source : descriptor.sources) {
            m_socket.set_option(
                SourceFilterOption<IP_BLOCK_SOURCE>(group, ip::make_address_v4(source)));
        }
    }
    boost::system::error_code loopError;
    m_socket.set_option(ip::multicast::enable_loopback(false), loopError);
    Log::Info(kFile, "ConnectMulticast", 110, "set_option(enable_loopback(false)) = %s",
              loopError.message().c_str());
    return true;
}

void TCCIMIpConnectionUdp::Disconnect() {
    if (!m_multicastGroup.empty() && t_connected) {
        Log::Info(kFile, "Disconnect", 117, "%s", "");
        // Only the any-source membership is dropped; closing the socket below
        // ends the source-specific ones.
        m_socket.set_option(boost::asio::ip::multicast::leave_group(
            boost::asio::ip::make_address(m_multicastGroup)));
    }
    TCCIMIpConnection<boost::asio::ip::udp>::Disconnect();
}

std::size_t TCCIMIpConnectionUdp::t_SocketSynchronousWrite(const std::vector<uint8_t>& data,
                                                           boost::system::error_code& error) {
    if (!m_multicastGroup.empty()) {
        return m_socket.send_to(boost::asio::buffer(data), m_multicastEndpoint, 0, error);
    }
    return m_socket.send(boost::asio::buffer(data), 0, error);
}

void TCCIMIpConnectionUdp::t_SocketAsynchronousRead(std::vector<uint8_t>& data,
                                                    TCIMIpDataCallback callback) {
    if (!m_multicastGroup.empty()) {
        m_socket.async_receive_from(boost::asio::buffer(data), m_senderEndpoint, callback);
        return;
    }
    TCCIMIpConnection<boost::asio::ip::udp>::t_SocketAsynchronousRead(data, callback);
}

boost::asio::ip::udp TCCIMIpConnectionUdp::t_CreateProtocol(bool ipv6) {
    return ipv6 ? boost::asio::ip::udp::v6() : boost::asio::ip::udp::v4();
}

}  // namespace CIM
