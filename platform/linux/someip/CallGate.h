#pragma once
/// Prevents calls of a callback after its owner has closed the gate.
#include <atomic>
#include <cstdint>

namespace someip {

/// The caller holds a Pass during the call. close() refuses new passes and waits for those in use, except for
/// passes of the calling thread: a callback may close its own gate.
class CallGate {
  public:
    class Pass {
      public:
        explicit Pass(CallGate& gate) noexcept : m_gate(gate), m_below(s_top), m_granted(enter(gate)) {
            s_top = this;
        }
        ~Pass() {
            s_top = m_below;
            m_gate.m_inside.fetch_sub(1);
            m_gate.m_inside.notify_all();
        }
        Pass(const Pass&) = delete;
        Pass& operator=(const Pass&) = delete;
        explicit operator bool() const noexcept { return m_granted; }

      private:
        friend class CallGate;
        static thread_local const Pass* s_top;

        /// The order matters: either the pass sees the closed gate, or close() sees the pass.
        static bool enter(CallGate& gate) noexcept {
            gate.m_inside.fetch_add(1);
            return gate.m_open.load();
        }

        CallGate& m_gate;
        const Pass* const m_below;
        const bool m_granted;
    };

    void close() noexcept {
        m_open.store(false);
        std::uint32_t own = 0;
        for (const Pass* pass = Pass::s_top; pass != nullptr; pass = pass->m_below) {
            own += &pass->m_gate == this ? 1 : 0;
        }
        for (auto inside = m_inside.load(); inside > own; inside = m_inside.load()) {
            m_inside.wait(inside);
        }
    }

  private:
    std::atomic<bool> m_open{true};
    std::atomic<std::uint32_t> m_inside{0};
};

}  // namespace someip
