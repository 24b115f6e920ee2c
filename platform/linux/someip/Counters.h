#pragma once
/// The counters of the stack. They are process-wide: runtimes that tests create share them.
#include "kyo/Status.h"

namespace someip {

struct Counters {
    kyo::Counter& datagrams = kyo::Status::counter("someip.datagrams");  ///< received for events
    kyo::Counter& bundled = kyo::Status::counter("someip.bundled");  ///< messages behind a datagram's first
    kyo::Counter& notifications = kyo::Status::counter("someip.notifications");  ///< taken by a receiver
    kyo::Counter& malformed = kyo::Status::counter("someip.malformed");          ///< contradict themselves
    kyo::Counter& truncated = kyo::Status::counter("someip.truncated");  ///< a structure ends too early
    kyo::Counter& doubledMembers = kyo::Status::counter("someip.doubledMembers");
    kyo::Counter& wrongVersion = kyo::Status::counter("someip.wrongVersion");  ///< of protocol or interface
    kyo::Counter& notSubscribed =
        kyo::Status::counter("someip.notSubscribed");                    ///< events without a subscription
    kyo::Counter& wrongPeer = kyo::Status::counter("someip.wrongPeer");  ///< not from the offering peer
    kyo::Counter& kernelDropped = kyo::Status::counter("someip.kernelDropped");  ///< full socket buffers
    kyo::Counter& sessionGaps = kyo::Status::counter("someip.sessionGaps");      ///< missing session numbers
    kyo::Counter& sessionRepeats = kyo::Status::counter("someip.sessionRepeats");
    kyo::Counter& handlerFailures = kyo::Status::counter("someip.handlerFailures");  ///< exceptions
    kyo::Counter& sent = kyo::Status::counter("someip.sent");  ///< datagrams with events
    kyo::Counter& sendFailed = kyo::Status::counter("someip.sendFailed");
    kyo::Counter& tpSegments = kyo::Status::counter("someip.tp.segments");      ///< from the right sender
    kyo::Counter& tpJoined = kyo::Status::counter("someip.tp.joined");          ///< messages made of them
    kyo::Counter& tpDropped = kyo::Status::counter("someip.tp.dropped");        ///< segmented messages
    kyo::Counter& tpIgnored = kyo::Status::counter("someip.tp.ignored");        ///< segments
    kyo::Counter& tcpConnected = kyo::Status::counter("someip.tcp.connected");  ///< connections to servers
    kyo::Counter& tcpLost =
        kyo::Status::counter("someip.tcp.lost");  ///< of them, ended by the peer or a failure
    kyo::Counter& tcpBroken =
        kyo::Status::counter("someip.tcp.broken");  ///< of these, for impossible lengths
    kyo::Counter& sdReceived = kyo::Status::counter("someip.sd.received");    ///< datagrams
    kyo::Counter& sdSent = kyo::Status::counter("someip.sd.sent");            ///< messages
    kyo::Counter& sdMalformed = kyo::Status::counter("someip.sd.malformed");  ///< datagrams
    kyo::Counter& sdForeign = kyo::Status::counter("someip.sd.foreign");      ///< from outside the network
    kyo::Counter& sdUnusable = kyo::Status::counter("someip.sd.unusable");    ///< offers
    kyo::Counter& sdReboots = kyo::Status::counter("someip.sd.reboots");
};

/// Lives until the process ends.
Counters& counters();

}  // namespace someip
