// The signal catalog: its answers, and its messages about errors in the file.
#include "catalog/VlmJsonCatalog.h"
#include "tests/support/Test.h"

namespace {

using namespace vlmTest;
using namespace vlmProd;

constexpr char kCatalog[] = R"({
  "meta": {"vlmVersion": "7.1"},
  "services": {
    "GNSS": {
      "positions": {"loadFactor": 10, "serviceId": "0x1101", "someipKeyProperty": "type",
        "instances": {"2": [{"property": "b", "signal": "S.b", "privacy_group": 1},
                            {"property": "a", "signal": "S.a", "privacy_group": 1}],
                      "1": [{"property": "z", "signal": "S.z", "privacy_group": 2}],
                      "01": [{"property": "first", "signal": "S", "privacy_group": 0}],
                      "3": "skipped"}},
      "bare": {"loadFactor": 1, "serviceId": "0x1101"}
    },
    "Empty": {}
  }
})";

struct VlmJsonCatalogTest : Test {
    TemporaryFolder m_folder;
    const std::string m_path = m_folder.write("catalog.json", kCatalog);
    LogCapture m_log;
    FilesReturnCode m_code = FilesReturnCode::PathNotValid;
};

TEST_F(VlmJsonCatalogTest, AnswersFromTheFileWithPropertiesInItsOrder) {
    VlmJsonCatalog catalog(m_path);
    EXPECT_EQ(catalog.getNumberOfServices(), 2);
    EXPECT_EQ(catalog.getCatalogVersion(), "7.1");
    EXPECT_THAT(catalog.getServicesNames(m_code), ElementsAre("Empty", "GNSS"));
    EXPECT_EQ(catalog.getSomeIPKey("GNSS", "positions", m_code), "type");
    EXPECT_EQ(catalog.getSomeIPKey("GNSS", "bare", m_code), "");
    EXPECT_EQ(m_code, FilesReturnCode::Ok);
    EXPECT_THAT(catalog.getAllInstancesOfAService("GNSS", m_code),
                ElementsAre(Pair("bare", IsEmpty()), Pair("positions", ElementsAre(1, 2))));
    EXPECT_THAT(catalog.getAllProperties("GNSS", "positions", 2), ElementsAre("b", "a"));
    // "01" is also instance 1, and the first in the order of names.
    EXPECT_THAT(catalog.getAllProperties("GNSS", "positions", 1), ElementsAre("first"));
}

TEST_F(VlmJsonCatalogTest, WhatIsNotInTheCatalogIsReportedByMessageAndCode) {
    VlmJsonCatalog catalog(m_path);
    m_log.clear();
    EXPECT_THAT(catalog.getAllProperties("None", "r", 1), IsEmpty());
    EXPECT_THAT(catalog.getAllProperties("GNSS", "r", 1), IsEmpty());
    EXPECT_THAT(catalog.getAllProperties("GNSS", "positions", 9), IsEmpty()) << "without a message";
    EXPECT_EQ(catalog.getSomeIPKey("None", "r", m_code), "");
    EXPECT_EQ(m_code, FilesReturnCode::ServiceDataMissing);
    EXPECT_EQ(catalog.getSomeIPKey("GNSS", "r", m_code), "");
    EXPECT_EQ(m_code, FilesReturnCode::ServiceDataMissing);
    EXPECT_THAT(catalog.getAllInstancesOfAService("None", m_code), IsEmpty());
    EXPECT_EQ(m_code, FilesReturnCode::ServiceNotFound);
    EXPECT_THAT(m_log.messages(3),
                ElementsAre("Service None  not found in json catalog",
                            "Service GNSS and resource r not found in json catalog",
                            "Failed to get the services info from Json Catalog file for the service None",
                            "Failed to get the resource info from Json Catalog file for the service GNSS and "
                            "resource r",
                            "Service name not found"));
}

TEST_F(VlmJsonCatalogTest, MissingBlocksAndWrongTypesAreNamedAndTheRestIsLoaded) {
    VlmJsonCatalog empty(m_folder.write("empty.json", "[]"));
    EXPECT_EQ(empty.getCatalogVersion() + empty.getSomeIPKey("A", "r", m_code), "");
    EXPECT_EQ(m_code, FilesReturnCode::ServiceDataMissing);
    m_code = FilesReturnCode::Ok;
    EXPECT_THAT(empty.getServicesNames(m_code), IsEmpty());
    EXPECT_EQ(m_code, FilesReturnCode::ServiceDataMissing);
    EXPECT_EQ(m_log.count(3, "Failed to get the services info from Json Catalog file"), 4U);
    m_log.clear();
    VlmJsonCatalog catalog(m_folder.write("other.json", R"({"meta":{"vlmVersion":["7"]}, "services":{
        "A":{"r":{"loadFactor":"x","serviceId":[],"someipKeyProperty":{},
                  "instances":{"1":[5,{"property":[],"signal":7,"privacy_group":4294967296},{"property":"p"}]}},
             "s":[], "t":{"instances":[]}},
        "B":3, "C":null}})"));
    EXPECT_EQ(catalog.getCatalogVersion(), "");
    EXPECT_THAT(m_log.messages(3),
                ElementsAre("services.A.r.loadFactor: a number from -2147483648 to 2147483647 is expected, "
                            "found a text (\"x\")",
                            "services.A.r.serviceId: a text is expected, found an array",
                            "services.A.r.someipKeyProperty: a text is expected, found an object",
                            "services.A.r.instances.1[0]: an object is expected, found a number (5)",
                            "services.A.r.instances.1[1].property: a text is expected, found an array",
                            "services.A.r.instances.1[1].privacy_group: a number from -2147483648 to "
                            "2147483647 is expected, found a number (4294967296)",
                            "services.A.s: an object is expected, found an array",
                            "Couldnot find the JSON value for the resource s",
                            "services.A.t.instances: an object is expected, found an array",
                            "Couldnot find the instances JSON value for the resource ",
                            "services.B: an object is expected, found a number (3)",
                            "Couldnot find the JSON value for the service B",
                            "Couldnot find the JSON value for the service C",
                            "meta.vlmVersion: a text is expected, found an array"));
    EXPECT_THAT(catalog.getAllProperties("A", "r", 1), ElementsAre("", "p"));
}

TEST_F(VlmJsonCatalogTest, LoadingThrowsAndTheSingletonIsCreatedOnce) {
    const auto with = [this](const std::string& id) {
        return m_folder.write("other.json", R"({"services":{"S":{"r":{"instances":{")" + id + R"(":[]}}}}})");
    };
    EXPECT_THROW(VlmJsonCatalog{with("front")}, std::invalid_argument);
    EXPECT_TRUE(m_log.has(3, "services.S.r.instances.front: an instance id is a decimal number of 32 bits"));
    EXPECT_THROW(VlmJsonCatalog{with("2147483648")}, std::out_of_range);
    EXPECT_THAT([] { VlmJsonCatalog::getInstance(); },
                Throws<std::string>("VlmJsonCatalog::getInstance() ERROR: JsonCatalog not created yet!"));
    EXPECT_THAT([] { VlmJsonCatalog(""); }, Throws<std::string>("Catalog file path not provided!"));
    EXPECT_THAT([&] { VlmJsonCatalog(m_folder.file("absent")); },
                Throws<std::string>("Catalog file path not valid"));
    VlmJsonCatalog* const created = VlmJsonCatalog::createSingleton(m_path, m_code);
    EXPECT_EQ(m_code, FilesReturnCode::Ok);
    EXPECT_EQ(VlmJsonCatalog::getInstance(), created);
    EXPECT_THAT([&] { VlmJsonCatalog::createSingleton(m_path, m_code); },
                Throws<std::string>("VlmJsonCatalog::create() ERROR: Catalog already created!"));
}

}  // namespace
