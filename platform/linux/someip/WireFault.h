#pragma once

namespace someip {

/// A deliberate error in one notification, for benches that try what receivers make of it.
struct WireFault {
    enum Kind {
        TruncatedStructure,     ///< the last structure ends one byte before its members do
        WrongLength,            ///< the header's length says more than the datagram holds
        WrongInterfaceVersion,  ///< the interface's major version plus one
        WrongVersion = WrongInterfaceVersion,
        WrongProtocolVersion,  ///< protocol version 2
        DuplicatedSession,     ///< the session number of the notification before
        DoubledMember,         ///< the first member of the first structure comes twice
        UnknownMember,         ///< the first structure has one more member, with id 0x7FF
        WrongArrayLength,      ///< the array's length says more than the message holds
    };
    Kind kind = TruncatedStructure;
};

}  // namespace someip
