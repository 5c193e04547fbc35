// Where an IP connection goes: unicast and multicast descriptors, their
// classifications, and the text forms the connections log.
#ifndef CIMCORE_CIMIPCONNECTIONTYPES_H
#define CIMCORE_CIMIPCONNECTIONTYPES_H

#include <cimcore/Export.h>
#include <cstdint>
#include <list>
#include <string>

#include <boost/optional/optional.hpp>

namespace CIM {

enum EDestinationType : int32_t {
    HOSTNAME = 0,  // a name to resolve
    IPv4 = 1,      // an IPv4 address literal
    IPv6 = 2,      // an IPv6 address literal
    DESTINATION_BY_ILLEGAL = 255,
};

enum EProtocolType : int32_t {
    TCP = 1,
    UDP = 2,
    PROTOCOL_TYPE_ILLEGAL = 255,
};

// One TCP or UDP peer. The local end is bound only when both source fields
// are present.
struct UniCastDescriptor {
    EDestinationType destinationType;
    std::string destination;  // host name or address literal, as the type says
    uint16_t port;
    EProtocolType protocol;
    boost::optional<std::string> sourceAddress;  // address literal
    boost::optional<uint16_t> sourcePort;
};

// An IPv4 multicast group with a source filter. With `join` the sources are
// the only ones received from; without it they are the ones excluded. An
// empty list receives from every source either way.
struct MultiCastDescriptor {
    EDestinationType destinationType;  // only IPv4 is accepted
    std::string group;
    uint16_t port;
    bool join;
    std::list<std::string> sources;  // IPv4 literals
};

// "HOSTNAME", "IPv4", "IPv6", "DESTINATION_BY_ILLEGAL"; any other value logs
// "Out of scope(<value>)" and gives an empty text.
CIM_EXPORT std::string ToString(const EDestinationType& type);
// "TCP", "UDP", "PROTOCOL_TYPE_ILLEGAL"; others as above.
CIM_EXPORT std::string ToString(const EProtocolType& protocol);
// "UniCast [IPv4]TCP 10.0.0.5 : 8080(10.0.0.2:4000)". The missing blank
// after "]" is part of the format that log readers know.
CIM_EXPORT std::string ToString(const UniCastDescriptor& descriptor);
// "MultiCast UDP 232.1.1.1 : 5000 join [ 10.0.0.1 10.0.0.2 ]", or
// "except [ ... ]" when `join` is false.
CIM_EXPORT std::string ToString(const MultiCastDescriptor& descriptor);

}  // namespace CIM

#endif
