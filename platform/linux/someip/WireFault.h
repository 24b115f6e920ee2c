#pragma once

namespace someip {

/// A deliberate error in one notification, for tests of receivers.
struct WireFault {
    enum Kind {
        TruncatedStructure,     ///< the last structure is one byte shorter than its members
        WrongLength,            ///< the header's length exceeds the datagram
        WrongInterfaceVersion,  ///< the interface's major version plus one
        WrongVersion = WrongInterfaceVersion,
        WrongProtocolVersion,  ///< protocol version 2
        DuplicatedSession,     ///< repeats the session number of the previous notification
        DoubledMember,         ///< the first member of the first structure occurs twice
        UnknownMember,         ///< the first structure has an additional member with id 0x7FF
        WrongArrayLength,      ///< the array's length exceeds the message
    };
    Kind kind = TruncatedStructure;
};

}  // namespace someip
