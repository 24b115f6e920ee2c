#pragma once
/// The sample path of the process without its sockets: datagrams go into the dispatcher of the middleware and
/// end as records in collectors' output queues, over the real adapters, ingress queue and collectors.
#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "someip/EventDispatcher.h"

namespace vlmBench {

/// How many samples arrive together: what one system call of the receive thread takes at most.
inline constexpr int kBurst = 32;
/// How often it is looked whether a burst is through.
inline constexpr std::chrono::microseconds kLook{1000};

enum class Kind { FullPosition, Notification };
enum class Threads { Real, None };

class Pipeline {
  public:
    /// Makes `collectors` collectors with that history, each with an adapter of its own, so that any number
    /// of them can be fed by one kind of event. What an earlier pipeline made stays, unused.
    Pipeline(Kind kind, int collectors, long long historyMs, Threads threads = Threads::Real);

    /// Sends `samples` samples to the collectors in turn and waits until all have arrived or were counted as
    /// lost. Throws std::runtime_error when some are neither.
    void run(int samples);
    /// Sends one burst and waits for it.
    void burst(int samples);
    /// Samples that did not reach an output queue so far.
    static std::uint64_t lost();

    /// Without threads: takes one sample all the way on the calling thread.
    void sampleByHand();

    /// Empties all output queues, by a tick.
    static void drain();

  private:
    void inject();

    struct Lane {
        std::vector<std::uint8_t> datagram;
    };

    std::atomic<bool> m_stop{false};
    someip::EventDispatcher m_dispatcher;
    std::vector<Lane> m_lanes;
    std::size_t m_next = 0;
};

/// The process's catalog, made once.
void haveCatalog();

}  // namespace vlmBench
