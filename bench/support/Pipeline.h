#pragma once
/// The sample path of the process without sockets: datagrams enter the middleware's dispatcher and become
/// records in the collectors' output queues, through the real adapters, ingress queue and collectors.
#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "someip/EventDispatcher.h"

namespace vlmBench {

/// Samples that arrive together: the most that the receive thread takes with one system call.
inline constexpr int kBurst = 32;
/// The interval of the checks for the end of a burst.
inline constexpr std::chrono::microseconds kPollInterval{1000};

enum class Kind { FullPosition, Notification };
enum class Threads { Real, None };

class Pipeline {
  public:
    /// Creates `collectors` collectors with that history, each with its own adapter, so that one kind of
    /// event can feed any number of them. Objects of earlier pipelines remain, unused.
    Pipeline(Kind kind, int collectors, long long historyMs, Threads threads = Threads::Real);

    /// Sends `samples` samples to the collectors in turn and waits until all have arrived or are counted as
    /// lost. Throws std::runtime_error when some are neither.
    void run(int samples);
    /// Sends one burst and waits for it.
    void burst(int samples);
    /// Samples that have not reached an output queue.
    static std::uint64_t lost();

    /// Without threads: processes one sample on the calling thread.
    void sampleByHand();

    /// Empties all output queues with a tick.
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

/// Creates the process's catalog on the first call.
void haveCatalog();

}  // namespace vlmBench
