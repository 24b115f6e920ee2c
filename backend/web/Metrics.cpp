#include "backend/web/Metrics.h"

#include <string_view>
#include <utility>
#include <vector>

namespace vlmBackend::web {

namespace {

class Text {
  public:
    using Values = std::vector<std::pair<std::string, std::int64_t>>;  ///< labels and value

    void add(const std::string& name, std::string_view type, std::string_view help, const Values& values) {
        m_text +=
            "# TYPE " + name + " " + std::string(type) + "\n# HELP " + name + " " + std::string(help) + "\n";
        const std::string suffix = type == "counter" ? "_total" : type == "info" ? "_info" : "";
        for (const auto& [labels, value] : values) {
            m_text += name + suffix + (labels.empty() ? "" : "{" + labels + "}") + " " +
                      std::to_string(value) + "\n";
        }
    }
    void counter(const std::string& name, std::string_view help, const std::atomic<std::uint64_t>& value) {
        add(name, "counter", help, {{"", static_cast<std::int64_t>(value.load())}});
    }
    std::string end() { return m_text + "# EOF\n"; }

  private:
    std::string m_text;
};

}  // namespace

std::string metricsText(const Metrics& metrics, const store::Totals& totals, Readers& readers,
                        const std::string& version) {
    Text out;
    out.add("vlm_backend_build", "info", "The program.", {{"version=\"" + version + "\"", 1}});
    out.counter("vlm_backend_envelopes", "Envelopes received, with repetitions.", totals.envelopes);
    out.counter("vlm_backend_repeated_envelopes", "Envelopes whose messageId was known.", totals.repeated);
    out.counter("vlm_backend_samples", "Samples in received envelopes.", totals.samples);
    out.counter("vlm_backend_unusable", "Envelopes and samples that were kept aside.", totals.unusable);
    out.counter("vlm_backend_refused", "Messages whose topic names no vehicle.", totals.refused);
    out.counter("vlm_backend_received_bytes", "Bytes of envelopes on the wire.", totals.bytes);
    out.counter("vlm_backend_database_failures", "Batches that the database did not take.",
                totals.databaseFailures);
    std::int64_t walBytes = 0;
    std::int64_t online = 0;
    std::int64_t known = 0;
    bool works = true;
    try {
        readers.use([&](store::Sql& sql) {
            const auto rows = sql.query("SELECT COUNT(*), COALESCE(SUM(online), 0) FROM vehicles");
            known = store::integer(rows[0][0]);
            online = store::integer(rows[0][1]);
            walBytes = sql.walBytes();
        });
    } catch (const std::exception&) {
        works = false;
    }
    out.add("vlm_backend_database_up", "gauge", "Whether the database answers.", {{"", works ? 1 : 0}});
    if (works) {
        out.add("vlm_backend_vehicles", "gauge", "Vehicles by presence.",
                {{"state=\"online\"", online}, {"state=\"offline\"", known - online}});
        out.add("vlm_backend_wal_bytes", "gauge", "Size of SQLite's write-ahead log.", {{"", walBytes}});
    }
    Text::Values answers;
    for (std::size_t status = 0; status < metrics.answers.size(); ++status) {
        if (const auto count = metrics.answers[status].load(); count != 0) {
            answers.emplace_back("status=\"" + std::to_string(status) + "\"",
                                 static_cast<std::int64_t>(count));
        }
    }
    out.add("vlm_backend_http_requests", "counter", "HTTP requests by status of the answer.", answers);
    out.add("vlm_backend_http_connections", "gauge", "HTTP connections now.",
            {{"", metrics.connections.load()}});
    out.add("vlm_backend_update_readers", "gauge", "Readers of /api/updates now.",
            {{"", metrics.updateReaders.load()}});
    return out.end();
}

}  // namespace vlmBackend::web
