#pragma once
#include <memory>
#include <utility>

#include "someip/Counters.h"
#include "someip/Transport.h"
#include "someip/UdpSocket.h"

namespace someip {

/// Reads a UDP socket, and counts what the system has dropped there. One thread.
class DatagramReader {
  public:
    /// `batch` may be shared by readers; it outlives them.
    DatagramReader(std::shared_ptr<UdpSocket> socket, DatagramBatch& batch)
        : m_socket(std::move(socket)), m_batch(&batch) {}

    const std::shared_ptr<UdpSocket>& socket() const noexcept { return m_socket; }
    int fd() const noexcept { return m_socket->fd(); }

    /// Reads once, without waiting, and calls `each(from, bytes)` for each datagram. Returns true when more
    /// may be waiting.
    template <typename Each>
    bool read(Each&& each) {
        const std::size_t count = m_batch->receive(*m_socket);
        for (std::size_t i = 0; i < count; ++i) {
            each(m_batch->from(i), m_batch->bytes(i));
        }
        std::uint32_t total = 0;
        if (m_batch->droppedBySystem(total) && total != m_dropped) {
            counters().kernelDropped.add(total - m_dropped);
            m_dropped = total;
        }
        return count == DatagramBatch::kDatagrams;
    }

  private:
    std::shared_ptr<UdpSocket> m_socket;
    DatagramBatch* m_batch;
    std::uint32_t m_dropped = 0;  ///< as the system has reported it last
};

/// Events in datagrams, from inside the network.
class DatagramInlet final : public Inlet {
  public:
    DatagramInlet(std::shared_ptr<UdpSocket> socket, DatagramBatch& batch, const Network& network)
        : m_reader(std::move(socket), batch), m_network(network) {}

    const std::shared_ptr<UdpSocket>& socket() const noexcept { return m_reader.socket(); }
    int fd() const noexcept override { return m_reader.fd(); }
    bool receive(const Take& take) override {
        m_reader.read([&](const Endpoint& from, std::span<const std::uint8_t> bytes) {
            if (m_network.contains(from.address)) {
                take(from, bytes);
            } else {
                counters().datagrams.add();
                counters().wrongPeer.add();
            }
        });
        return true;
    }

  private:
    DatagramReader m_reader;
    const Network m_network;
};

}  // namespace someip
