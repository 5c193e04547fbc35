#include <cimcore/CIMIpConnectionTypes.h>

#include <cimcore/internal/CIMLog.h>

#include <sstream>

namespace CIM {

std::string ToString(const EDestinationType& type) {
    switch (type) {
        case HOSTNAME:
            return "HOSTNAME";
        case IPv4:
            return "IPv4";
        case IPv6:
            return "IPv6";
        case DESTINATION_BY_ILLEGAL:
            return "DESTINATION_BY_ILLEGAL";
    }
    Log::Info("CIMIpConnection.cpp", "ToString", 29, "Out of scope(%d)", static_cast<int>(type));
    return std::string();
}

std::string ToString(const EProtocolType& protocol) {
    switch (protocol) {
        case TCP:
            return "TCP";
        case UDP:
            return "UDP";
        case PROTOCOL_TYPE_ILLEGAL:
            return "PROTOCOL_TYPE_ILLEGAL";
    }
    Log::Info("CIMIpConnection.cpp", "ToString", 46, "Out of scope(%d)",
              static_cast<int>(protocol));
    return std::string();
}

std::string ToString(const UniCastDescriptor& descriptor) {
    std::ostringstream text;
    text << "UniCast [" << ToString(descriptor.destinationType) << "]"
         << ToString(descriptor.protocol) << " " << descriptor.destination << " : "
         << descriptor.port << "(";
    if (descriptor.sourceAddress) {
        text << *descriptor.sourceAddress;
    }
    if (descriptor.sourcePort) {
        text << ":" << *descriptor.sourcePort;
    }
    text << ")";
    return text.str();
}

std::string ToString(const MultiCastDescriptor& descriptor) {
    std::ostringstream text;
    text << "MultiCast UDP " << descriptor.group << " : " << descriptor.port
         << (descriptor.join ? " join [ " : " except [ ");
    for (const std::string& source : descriptor.sources) {
        text << source << " ";
    }
    text << "]";
    return text.str();
}

}  // namespace CIM
