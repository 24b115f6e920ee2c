/// Every event of every described service, from a skeleton through real sockets and the service's adapter to
/// the record that enters the pipeline, and the catalog that offers it. Driven by the descriptions; the
/// result must match the required tables.
#include <rttr/type>
#include <typeinfo>

#include "ac/com/runtime/component.h"
#include "collect/IngressQueue.h"
#include "qdr/services/described.h"
#include "qdr/services/registration.h"
#include "services/ProxyNames.h"
#include "services/adapters/RegisteredAdapters.h"
#include "services/adapters/ServiceAdapterBase.h"
#include "someip/Runtime.h"
#include "tests/support/FieldValues.h"
#include "tests/support/RecordValue.h"
#include "tests/unit/codegen/Required.h"

namespace vlmProd {

// The registry makes no adapter of these.
std::shared_ptr<BaseServiceObject> makeVLMDisplaySpeed(std::string name);
std::shared_ptr<BaseServiceObject> makeVLMParkAssist(std::string name);
std::shared_ptr<BaseServiceObject> makeVLMPowertrain(std::string name);

namespace {

using qdr::services::DescribedEvent;
using qdr::services::DescribedService;
using qdr::services::FieldInfo;
using qdr::services::FieldValue;
using qdr::services::FieldValues;
using namespace vlmTest;

/// One sample and the record that must come of it, but for its time.
struct Case {
    std::string what;
    FieldValues sample;
    Value record;
};

/// The form in which a record holds the value.
Value inRecord(const FieldInfo& field, const FieldValue& value) {
    if (const auto* number = std::get_if<std::int64_t>(&value)) {
        const bool isUnsigned = field.type[0] == 'u' || (!field.enumerators.empty() && *number >= 0);
        return isUnsigned ? Value(static_cast<kyo::Json::UInt64>(*number)) : Value(*number);
    }
    return std::visit([](const auto& other) { return Value(other); }, value);
}

/// A value of the key for which no event has a writer.
constexpr std::int64_t kWithoutWriter = 200;

/// An event under test: what is sent and what must arrive.
class EventUnderTest {
  public:
    EventUnderTest(const DescribedService& service, DescribedEvent& event, std::string serviceName)
        : m_service(service), m_event(event), m_serviceName(std::move(serviceName)) {
        for (std::size_t place = 0; place < event.fields().size(); ++place) {
            m_all[event.fields()[place].name] = valueFor(event.fields()[place], place);
        }
        for (const std::int64_t instance : instances()) {
            const std::string text = std::to_string(instance);
            add("all fields, " + keyName() + " " + text, with(instance), written(instance), instance);
            add("nothing but " + keyName() + " " + text, {{keyName(), instance}}, {keyName()}, instance);
        }
        if (!event.key().empty()) {
            add("a key without a writer", with(kWithoutWriter), {keyName()}, std::nullopt);
        }
        FieldValues keyless = m_all;
        keyless.erase(keyName());
        add("no key", keyless, event.key().empty() ? event.members() : std::vector<std::string>(),
            std::nullopt);
        add("nothing", {}, {}, std::nullopt);
    }

    const DescribedService& service() const { return m_service; }
    DescribedEvent& event() const { return m_event; }
    const std::string& serviceName() const { return m_serviceName; }
    const std::vector<Case>& cases() const { return m_cases; }

    /// The member whose value a resource takes for the index.
    std::string keyName() const {
        return m_event.key().empty() ? m_event.fields().front().name : m_event.key();
    }

    /// The values of the key that a collector can ask for.
    std::vector<std::int64_t> instances() const {
        std::vector<std::int64_t> values;
        for (const auto& [value, fields] : m_event.writers()) {
            values.push_back(value);
        }
        if (m_event.key().empty()) {
            const FieldInfo& first = m_event.fields().front();
            for (const auto& enumerator : first.enumerators) {
                values.push_back(enumerator.value);
            }
            for (double value = first.minimum; first.hasRange && value <= first.maximum; ++value) {
                values.push_back(static_cast<std::int64_t>(value));
            }
        }
        return values;
    }

    /// What a record of that key value holds besides the key; of an unkeyed event, all members.
    const std::vector<std::string>& fieldsOf(std::int64_t instance) const {
        return m_event.key().empty() ? m_event.members() : m_event.writers().at(static_cast<int>(instance));
    }

    std::string collector(std::int64_t instance) const {
        return "collector of " + m_event.name() + " " + std::to_string(instance);
    }

    bool send() {
        std::vector<FieldValues> samples;
        for (const Case& one : m_cases) {
            samples.push_back(one.sample);
        }
        return m_event.send(samples);
    }

  private:
    FieldValues with(std::int64_t keyValue) const {
        FieldValues sample = m_all;
        sample[keyName()] = keyValue;
        return sample;
    }

    std::vector<std::string> written(std::int64_t instance) const {
        auto fields = fieldsOf(instance);
        fields.push_back(keyName());
        return fields;
    }

    void add(std::string what, FieldValues sample, const std::vector<std::string>& members,
             std::optional<std::int64_t> instance) {
        Value record(kyo::Json::objectValue);
        record["serviceName"] = m_serviceName;
        record["resName"] = m_event.name();
        for (const FieldInfo& field : m_event.fields()) {
            const auto value = sample.find(field.name);
            const bool isWritten = std::find(members.begin(), members.end(), field.name) != members.end();
            if (isWritten && value != sample.end()) {
                record[field.name] = inRecord(field, value->second);
            }
        }
        if (instance) {
            record["collectorName"] = collector(*instance);
            record["index"] = static_cast<kyo::Json::Int64>(*instance);
        }
        m_cases.push_back({std::move(what), std::move(sample), std::move(record)});
    }

    const DescribedService& m_service;
    DescribedEvent& m_event;
    const std::string m_serviceName;
    FieldValues m_all;
    std::vector<Case> m_cases;
};

using Adapters = std::map<std::string, std::shared_ptr<ServiceAdapterBase>>;
using Events = std::vector<std::unique_ptr<EventUnderTest>>;

void connect(const Adapters& adapters, const Events& events) {
    for (const auto& [name, adapter] : adapters) {
        ASSERT_TRUE(eventually([&adapter = adapter] { return adapter->initProxy(); })) << name;
    }
    for (const auto& one : events) {
        const auto& adapter = adapters.at(one->serviceName());
        const std::string& event = one->event().name();
        adapter->createResourceObject({event});
        adapter->setSomeIPKey(event, one->keyName());
        for (const std::int64_t instance : one->instances()) {
            adapter->setCollectorName(one->serviceName(), event, static_cast<int>(instance),
                                      one->collector(instance));
        }
        ASSERT_TRUE(adapter->SubscribeResource(event)) << one->serviceName() << event;
    }
    for (const auto& one : events) {
        ASSERT_TRUE(eventually([&] { return one->event().subscribers() == 1; }))
            << one->serviceName() << " " << one->event().name();
    }
}

/// Sends all samples of the event in one notification; the records that come of it, in their order. The queue
/// is read only when all of them are in it: a reader could make a producer give up.
std::vector<Value> recordsOf(EventUnderTest& one) {
    auto& converted = kyo::Status::counter("samples.converted");
    const auto goal = converted.value() + one.cases().size();
    EXPECT_TRUE(one.send()) << one.event().error();
    EXPECT_TRUE(eventually([&] { return converted.value() >= goal; }));
    std::vector<Value> records;
    Record record;
    while (IngressQueue::getInstance()->takeRecord(&record)) {
        records.push_back(valueOf(record));
    }
    return records;
}

/// What a client decodes with the event's description, for one event at a time.
class Decoded {
  public:
    Decoded(const DescribedService& service, const DescribedEvent& event)
        : m_event(event),
          m_receiver(someip::Runtime::process().receive(
              service.interface(), 1, event.interface(), [this](auto payload, auto& report) {
                  std::vector<qdr::services::DecodedSample> samples;
                  EXPECT_TRUE(m_event.decode(payload, samples, report)) << report.error;
                  for (auto& sample : samples) {
                      m_samples.add(std::move(sample));
                  }
              })) {}
    ~Decoded() { someip::Runtime::process().release(m_receiver); }

    /// Each value that was sent must be in its place, and no other.
    void expect(const std::vector<Case>& cases) {
        ASSERT_TRUE(eventually([&] { return m_samples.size() == cases.size(); }));
        const auto samples = m_samples.all();
        for (std::size_t i = 0; i < cases.size(); ++i) {
            Value sent(kyo::Json::objectValue);
            for (const auto& [name, value] : cases[i].sample) {
                sent[name] = inRecord(*m_event.find(name), value);
            }
            Value decoded(kyo::Json::objectValue);
            for (std::size_t place = 0; place < m_event.fields().size(); ++place) {
                if (const auto& value = samples[i].at(place)) {
                    decoded[m_event.fields()[place].name] =
                        std::visit([](const auto& held) { return Value(held); }, *value);
                }
            }
            EXPECT_EQ(decoded, sent) << cases[i].what;
        }
    }

  private:
    const DescribedEvent& m_event;
    SharedList<qdr::services::DecodedSample> m_samples;
    const std::shared_ptr<someip::EventReceiver> m_receiver;
};

/// Whether the event's data type is known to reflection, with its fields in order.
void expectRegistered(const std::string& nameSpace, const DescribedEvent& event) {
    const auto type = rttr::type::get_by_name("qdr::services::" + nameSpace + "::datatypes::DT_" +
                                              event.name() + "_struct");
    ASSERT_TRUE(type.is_valid());
    std::vector<std::string> described;
    std::vector<std::string> registered;
    for (const auto& field : event.fields()) {
        described.push_back(field.name);
    }
    for (const auto& property : type.get_properties()) {
        registered.push_back(property.get_name().to_string());
    }
    EXPECT_EQ(registered, described);
}

/// Expects the members of the required tables in the records.
void expectRequired(const RequiredEvent& required, const std::vector<Value>& records) {
    const std::set<std::string> common{"timestamp", "serviceName", "resName", "collectorName", "index"};
    std::set<std::string> added;
    std::set<int> withFields;
    for (const Value& record : records) {
        for (const std::string& name : record.getMemberNames()) {
            if (common.count(name) == 0 && name != required.key) {
                added.insert(name);
                withFields.insert(record.get("index", -1).asInt());
            }
        }
    }
    if (required.key == "-") {
        EXPECT_EQ(added, std::set<std::string>(required.members.begin(), required.members.end()));
    } else {
        EXPECT_EQ(added.size(), required.memberCount);
        EXPECT_EQ(withFields, std::set<int>(required.writers.begin(), required.writers.end()));
    }
}

/// Whether a configuration can ask for what the records hold, instance by instance.
void expectInCatalog(const Value& resource, const EventUnderTest& one) {
    EXPECT_EQ(resource["someipKeyProperty"].asString(), one.keyName());
    EXPECT_EQ(resource["instances"].size(), one.instances().size());
    for (const std::int64_t instance : one.instances()) {
        std::vector<std::string> properties;
        for (const Value& entry : resource["instances"][std::to_string(instance)]) {
            properties.push_back(entry["property"].asString());
        }
        EXPECT_EQ(properties, one.fieldsOf(instance)) << instance;
    }
}

TEST(EveryEvent, GivesTheRecordThatItMustWithAllFieldsWithoutThemAndWithoutItsKey) {
    // Never ended: the adapters' proxies live as long as the process.
    new ac::com::runtime::Component_singleton(
        true, R"({"address": "127.0.41.1", "discovery": {"port": 32641, "group": "127.255.255.255"}})");
    auto made = makeRegisteredAdapters();
    const auto registry = readRequired("registry");
    ASSERT_EQ(made.size(), registry.size());
    for (std::size_t place = 0; place < made.size(); ++place) {
        EXPECT_EQ(made[place].first, registry[place].at(1));
        const BaseServiceObject& adapter = *made[place].second;
        EXPECT_THAT(typeid(adapter).name(), HasSubstr(registry[place].at(2)));
        EXPECT_EQ(proxyNames::all[place], made[place].first);
    }
    EXPECT_THAT(std::vector(proxyNames::all.begin() + made.size(), proxyNames::all.end()),
                ElementsAre("ManeuverAssistProxy", "SmartChargingStatisticSyncProxy", "DisplaySpeedProxy",
                            "RouteBasedConsumptionProxy"));
    made.emplace_back("DisplaySpeedProxy", makeVLMDisplaySpeed("DisplaySpeedProxy"));
    made.emplace_back("ParkAssistProxy", makeVLMParkAssist("ParkAssistProxy"));
    made.emplace_back("PowertrainProxy", makeVLMPowertrain("PowertrainProxy"));
    Adapters adapters;
    for (auto& [name, adapter] : made) {
        adapters[name] = std::dynamic_pointer_cast<ServiceAdapterBase>(adapter);
        adapters[name]->setAttemptPause(std::chrono::milliseconds(20));
    }
    std::vector<std::unique_ptr<DescribedService>> services;
    Events events;
    for (const std::string& name : qdr::services::describedServiceNames()) {
        services.push_back(qdr::services::makeDescribedService(name));
        const std::string key = services.back()->registryKey();
        for (DescribedEvent* event : services.back()->events()) {
            events.push_back(std::make_unique<EventUnderTest>(*services.back(), *event,
                                                              key.empty() ? name + "Proxy" : key));
        }
        ASSERT_TRUE(services.back()->offer()) << name;
    }
    ASSERT_NO_FATAL_FAILURE(connect(adapters, events));

    qdr::services::registerAllTypes();
    qdr::services::registerAllTypes();  // does nothing more
    const auto allRequired = requiredEvents();
    EXPECT_EQ(events.size(), allRequired.size());
    Value catalog;
    std::ifstream file(VLM_CATALOG_FILE);
    ASSERT_TRUE(kyo::Json::Reader().parse(file, catalog));
    std::size_t registered = 0;
    // One event after the other, so that no socket buffer has to hold all of them.
    for (const auto& one : events) {
        SCOPED_TRACE(one->serviceName() + " " + one->event().name());
        Decoded decoded(one->service(), one->event());
        const std::vector<Value> records = recordsOf(*one);
        decoded.expect(one->cases());
        ASSERT_EQ(records.size(), one->cases().size());
        for (std::size_t i = 0; i < records.size(); ++i) {
            Value record = records[i];
            EXPECT_GT(record["timestamp"].asUInt64(), 1'000'000'000'000u) << "milliseconds since 1970";
            record.removeMember("timestamp");
            EXPECT_EQ(compactText(record), compactText(one->cases()[i].record)) << one->cases()[i].what;
        }
        const auto required = std::find_if(allRequired.begin(), allRequired.end(), [&](const auto& row) {
            const std::string serviceName =
                row.registryKey == "-" ? row.adapter.substr(3) + "Proxy" : row.registryKey;
            return serviceName == one->serviceName() && row.event == one->event().name();
        });
        ASSERT_NE(required, allRequired.end());
        expectRequired(*required, records);
        expectRegistered(required->nameSpace, one->event());
        if (required->registryKey != "-") {
            const std::string name = one->serviceName().substr(0, one->serviceName().rfind("Proxy"));
            expectInCatalog(catalog["services"][name][required->event], *one);
            ++registered;
        }
        for (const auto& row : readRequired("written_fields")) {
            if (row.at(0) == required->adapter && row.at(1) == required->event) {
                EXPECT_EQ(one->fieldsOf(std::stoi(row.at(2))), splitText(row.at(3), ' '));
            }
        }
        if (required->event == "additionalRadarInformation") {
            EXPECT_THAT(one->fieldsOf(1), Contains("unvailability")) << "misspelled on purpose";
        }
    }
    std::size_t offered = 0;
    for (const Value& service : catalog["services"]) {
        offered += service.size();
    }
    EXPECT_EQ(offered, registered);
}

}  // namespace
}  // namespace vlmProd
