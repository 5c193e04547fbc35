// The UDP connection of a CI module's low-speed-communication resource, and
// its IPv4 multicast reception with source filtering.
#ifndef CIMCORE_CIMIPCONNECTIONUDP_H
#define CIMCORE_CIMIPCONNECTIONUDP_H

#include <cimcore/Export.h>
#include <string>

#include <boost/asio/ip/udp.hpp>

#include <cimcore/internal/CIMIpConnection.h>

namespace CIM {

extern template class TCCIMIpConnection<boost::asio::ip::udp>;

// With Connect, a UDP association with one peer. With ConnectMulticast, the
// reception of an IPv4 group (IGMPv3): a join list receives from the listed
// sources only, an except list from every source but those; the host's own
// datagrams to the group are not looped back.
//
// Multicast mode sticks: Disconnect leaves the group but keeps the group
// text, so an object once used for multicast keeps sending to the group and
// receiving with the sender recorded, even after a later Connect; its next
// Disconnect then tries to leave a group the new socket never joined and
// throws. Use a fresh object for unicast after multicast.
//
// ConnectMulticast and Disconnect throw boost::system::system_error ("open",
// "set_option", "bind") instead of returning false; a throwing Disconnect in
// the destructor ends the process.
class CIM_EXPORT TCCIMIpConnectionUdp : public TCCIMIpConnection<boost::asio::ip::udp> {
public:
    explicit TCCIMIpConnectionUdp(boost::shared_ptr<TCCIMTask> task);
    ~TCCIMIpConnectionUdp() override;

    bool ConnectMulticast(const MultiCastDescriptor& descriptor) override;
    void Disconnect() override;

protected:
    std::size_t t_SocketSynchronousWrite(const std::vector<uint8_t>& data,
                                         boost::system::error_code& error) override;
    void t_SocketAsynchronousRead(std::vector<uint8_t>& data, TCIMIpDataCallback callback) override;
    boost::asio::ip::udp t_CreateProtocol(bool ipv6) override;

private:
    std::string m_multicastGroup;  // empty in unicast mode; owner's thread only
    boost::asio::ip::udp::endpoint m_multicastEndpoint;
    boost::asio::ip::udp::endpoint m_senderEndpoint;  // written by the pending receive
};

}  // namespace CIM

#endif
