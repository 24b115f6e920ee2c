#pragma once
#include <cstddef>
#include <filesystem>
#include <mutex>
#include <string>

#include "backend/Transport.h"
#include "machine/Manifest.h"

namespace kyo::orx {

/// A folder as the backend: envelopes become lines of `envelopes.jsonl`, flushed to the disk before the send
/// counts as done, and the collector configuration is a file beside it. The channel is opened at the start,
/// and each line is answered with delivery result 0.
///
/// When the folder cannot be written a send fails with the negative errno. That is logged once per cause, the
/// folder is tried once a second, and when it takes what failed before, the channel is opened again.
/// A line is whole or not there: what a failed write or a crash left is cut off.
class DirectoryTransport : public Transport {
  public:
    DirectoryTransport(machine::DirectoryBackend settings, Presence presence,
                       machine::MessageLimits limits = {});
    ~DirectoryTransport() override;

    void start() override;
    /// Blocks for the flush. One line at a time.
    std::int32_t send(const Json::Value& envelope) override;
    /// The answer holds one record, or none when the file cannot be read.
    std::int32_t requestConfiguration() override;
    void leave() override;

  private:
    Json::Value opening() const;
    void probe();
    void noteFailure(int error, const char* doing, std::size_t bytes);
    void noteSuccess();
    Json::Value readConfiguration() const;

    // Set once.
    const std::filesystem::path m_folder;
    const std::filesystem::path m_envelopes;
    const std::filesystem::path m_configuration;
    const Presence m_presence;
    const machine::MessageLimits m_limits;

    std::mutex m_mutex;             ///< one writer at a time; guards what follows
    std::string m_failure;          ///< the cause that was logged last; empty while the folder can be written
    std::size_t m_neededBytes = 1;  ///< what the folder must take to count as writable again
    bool m_probing = false;         ///< a probe is due
    bool m_opened = false;          ///< the channel was opened once
    bool m_left = false;            ///< no further envelope is taken
};

}  // namespace kyo::orx
