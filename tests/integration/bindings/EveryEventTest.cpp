/// Every event of every described service, from a skeleton through real sockets and the service's adapter to
/// the record that enters the pipeline, and the catalog that offers it. Driven by the descriptions.
#include <rttr/type>
#include <typeinfo>

#include "ac/com/runtime/component.h"
#include "collect/IngressQueue.h"
#include "qdr/services/described.h"
#include "qdr/services/registration.h"
#include "services/adapters/RegisteredAdapters.h"
#include "services/adapters/ServiceAdapterBase.h"
#include "tests/support/FieldValues.h"
#include "tests/support/Test.h"

namespace vlmProd {

// The registry makes no adapter of these.
std::shared_ptr<BaseServiceObject> makeVLMDisplaySpeed(std::string name);
std::shared_ptr<BaseServiceObject> makeVLMParkAssist(std::string name);
std::shared_ptr<BaseServiceObject> makeVLMPowertrain(std::string name);

namespace {

using namespace qdr::services;
using namespace vlmTest;

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
    EventUnderTest(DescribedEvent& described, std::string adapter)
        : event(described), serviceName(std::move(adapter)) {
        for (std::size_t place = 0; place < event.fields().size(); ++place) {
            m_all[event.fields()[place].name] = valueFor(event.fields()[place], place);
        }
        for (const auto& [instance, name, meaning] : event.indexes()) {
            auto written = fieldsOf(instance);
            written.push_back(keyName);
            m_all[keyName] = instance;
            add(m_all, written, instance);
            add({{keyName, instance}}, {keyName}, instance);
        }
        if (!event.key().empty()) {
            m_all[keyName] = kWithoutWriter;
            add(m_all, {keyName});
        }
        m_all.erase(keyName);
        add(m_all, event.key().empty() ? event.members() : std::vector<std::string>());
        add({}, {});
    }

    /// What a record of that key value holds besides the key; of an unkeyed event, all members.
    const std::vector<std::string>& fieldsOf(std::int64_t instance) const {
        return event.key().empty() ? event.members() : event.writers().at(static_cast<int>(instance));
    }

    std::string collector(std::int64_t instance) const {
        return "collector of " + event.name() + " " + std::to_string(instance);
    }

    DescribedEvent& event;
    const std::string serviceName;
    /// The member whose value a resource takes for the index.
    const std::string keyName = event.indexField().name;
    std::vector<FieldValues> samples;
    std::vector<std::string> records;  ///< that must come of the samples, but for their times

  private:
    void add(const FieldValues& sample, const std::vector<std::string>& members,
             std::optional<std::int64_t> instance = {}) {
        Value record(kyo::Json::objectValue);
        record["serviceName"] = serviceName;
        record["resName"] = event.name();
        for (const FieldInfo& field : event.fields()) {
            const auto value = sample.find(field.name);
            if (value != sample.end() && std::ranges::count(members, field.name) > 0) {
                record[field.name] = inRecord(field, value->second);
            }
        }
        if (instance) {
            record["collectorName"] = collector(*instance);
            record["index"] = static_cast<kyo::Json::Int64>(*instance);
        }
        samples.push_back(sample);
        records.push_back(compactText(record));
    }

    FieldValues m_all;
};

using Adapters = std::map<std::string, std::shared_ptr<ServiceAdapterBase>>;
using Events = std::vector<std::unique_ptr<EventUnderTest>>;

void connect(const Adapters& adapters, const Events& events) {
    for (const auto& [name, adapter] : adapters) {
        ASSERT_TRUE(eventually([&adapter = adapter] { return adapter->initProxy(); })) << name;
    }
    for (const auto& one : events) {
        const auto& adapter = adapters.at(one->serviceName);
        const std::string& event = one->event.name();
        adapter->createResourceObject({event});
        adapter->setSomeIPKey(event, one->keyName);
        for (const auto& [instance, name, meaning] : one->event.indexes()) {
            adapter->setCollectorName(one->serviceName, event, static_cast<int>(instance),
                                      one->collector(instance));
        }
        ASSERT_TRUE(adapter->SubscribeResource(event)) << one->serviceName << event;
    }
    for (const auto& one : events) {
        ASSERT_TRUE(eventually([&] { return one->event.subscribers() == 1; }))
            << one->serviceName << " " << one->event.name();
    }
}

/// Sends all samples of the event in one notification; the records that come of it, without their times. The
/// queue is read only when all of them are in it: a reader could make a producer give up.
std::vector<std::string> recordsOf(EventUnderTest& one) {
    auto& converted = kyo::Status::counter("samples.converted");
    const auto goal = converted.value() + one.samples.size();
    EXPECT_TRUE(one.event.send(one.samples)) << one.event.error();
    EXPECT_TRUE(eventually([&] { return converted.value() >= goal; }));
    std::vector<std::string> records;
    Record record;
    while (IngressQueue::getInstance()->takeRecord(&record)) {
        Value value = valueOf(record.text);
        EXPECT_GT(value["timestamp"].asUInt64(), 1'000'000'000'000u) << "milliseconds since 1970";
        value.removeMember("timestamp");
        records.push_back(compactText(value));
    }
    return records;
}

/// Whether the event's data type is known to reflection, with its fields in order.
void expectRegistered(std::string service, const DescribedEvent& event) {
    std::ranges::transform(service, service.begin(), ::tolower);
    const auto type =
        rttr::type::get_by_name("qdr::services::" + service + "::datatypes::DT_" + event.name() + "_struct");
    ASSERT_TRUE(type.is_valid());
    std::vector<std::string> registered;
    for (const auto& property : type.get_properties()) {
        registered.push_back(property.get_name().to_string());
    }
    EXPECT_TRUE(std::ranges::equal(registered, event.fields(), {}, {}, &FieldInfo::name))
        << PrintToString(registered);
}

/// Whether a configuration can ask for what the records hold, instance by instance.
void expectInCatalog(const Value& resource, const EventUnderTest& one) {
    EXPECT_EQ(resource["someipKeyProperty"].asString(), one.keyName);
    EXPECT_EQ(resource["instances"].size(), one.event.indexes().size());
    for (const auto& [instance, name, meaning] : one.event.indexes()) {
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
    made.emplace_back("DisplaySpeedProxy", makeVLMDisplaySpeed("DisplaySpeedProxy"));
    made.emplace_back("ParkAssistProxy", makeVLMParkAssist("ParkAssistProxy"));
    made.emplace_back("PowertrainProxy", makeVLMPowertrain("PowertrainProxy"));
    Adapters adapters;
    for (auto& [name, adapter] : made) {
        adapters[name] = std::dynamic_pointer_cast<ServiceAdapterBase>(adapter);
        adapters[name]->setAttemptPause(std::chrono::milliseconds(20));
    }
    qdr::services::registerAllTypes();
    qdr::services::registerAllTypes();  // does nothing more
    Value catalog;
    std::ifstream file(VLM_CATALOG_FILE);
    ASSERT_TRUE(kyo::Json::Reader().parse(file, catalog));
    std::size_t registered = 0;
    std::vector<std::unique_ptr<DescribedService>> services;
    Events events;
    for (const std::string& name : qdr::services::describedServiceNames()) {
        auto& service = *services.emplace_back(qdr::services::makeDescribedService(name));
        const std::string key = service.registryKey();
        for (DescribedEvent* event : service.events()) {
            SCOPED_TRACE(name + " " + event->name());
            events.push_back(std::make_unique<EventUnderTest>(*event, key.empty() ? name + "Proxy" : key));
            expectRegistered(name, *event);
            if (!key.empty()) {
                expectInCatalog(catalog["services"][service.catalogName()][event->name()], *events.back());
                ++registered;
            }
        }
        ASSERT_TRUE(service.offer()) << name;
    }
    ASSERT_NO_FATAL_FAILURE(connect(adapters, events));
    // One event after the other, so that no socket buffer has to hold all of them.
    for (const auto& one : events) {
        SCOPED_TRACE(one->serviceName + " " + one->event.name());
        EXPECT_EQ(recordsOf(*one), one->records);
    }
    std::size_t offered = 0;
    for (const Value& service : catalog["services"]) {
        offered += service.size();
    }
    EXPECT_EQ(offered, registered);
}

}  // namespace
}  // namespace vlmProd
