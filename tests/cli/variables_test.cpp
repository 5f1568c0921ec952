// Values of every kind through the command, out and in.
#include "product.h"

#include <tvsqdz.h>

#include <cstring>
#include <map>

TEST(Variables, AllAreListedWithTheirInitialValues) {
    const ExampleProduct product;
    const Json document = OrielJson({"vars", kPrinter});
    std::map<std::string, Json> variables;
    for (const Json& variable : document["variables"]) {
        variables[variable["name"]] = variable;
        EXPECT_TRUE(variable.contains("written") && !variable.contains("error")) << variable;
    }
    EXPECT_EQ(variables.size(), 59u);
    EXPECT_EQ(document["variables"].size(), variables.size());
    const std::pair<const char*, Json> values[] = {
        {"PageCount", nullptr}, // not known yet
        {"PrinterQueue", Json::array()},
        {"PortEx", {{"PrinterExtStatus", 0}, {"Port", {{"portKind", 0}, {"portName", ""}, {"portDetail", ""}}}}},
        {"PrinterModel", "Example Laser 4000"}};
    for (const auto& [name, value] : values)
        EXPECT_EQ(variables[name]["value"], value) << name;
    EXPECT_EQ(variables["PageCount"]["raw"], 0xffffffffu);
    EXPECT_EQ(variables["PrinterStatusEx"]["value"].size(), 5u); // ErrNSMError is in no model
    EXPECT_EQ(variables["PrinterModel"]["source"], "model");

    EXPECT_EQ(OrielJson({"vars", kPrinter, "toner*", "Page?ount"})["variables"].size(), 2u);

    // A model that is changed after the first open.
    const std::string model = R"(HKLM\SOFTWARE\Tavik\Oriel\Printers\Example Laser\Status Variables)";
    OrielText({"reg", "set", model, "Later", "04000000 04010100 64000000", "--type", "binary"});
    EXPECT_NE(Oriel({"vars", kPrinter, "Later"}).errors.find("restart the product"), std::string::npos);
}

TEST(Variables, WhatIsSetIsRead) {
    const ExampleProduct product;
    // A queue as the bytes of a file, its last name without NUL. It says that it has more jobs than there are.
    struct {
        uint32_t count = 0xffffffff;
        TvsJobRecord jobs[2] = {{"Report", "ann", 7}, {"Letter", "", 8}};
    } queue;
    std::memset(queue.jobs[1].ownerName, 'A', sizeof queue.jobs[1].ownerName);
    const std::string queueFile = FileOf("queue", {reinterpret_cast<const char*>(&queue), sizeof queue});
    const std::string owner(32, 'A');
    const Json report = {{"jobName", "Report"}, {"ownerName", "ann"}, {"jobId", 7}};
    const Json letter = {{"jobName", "Letter"}, {"ownerName", owner}, {"jobId", 8}};
    const std::string queueText =
        "jobName \"Report\", ownerName \"ann\", jobId 7\njobName \"Letter\", ownerName \"" + owner + "\", jobId 8";
    const auto port = [](const char* detail) {
        return Json{{"portKind", 8}, {"portName", "LPT1:"}, {"portDetail", detail}};
    };
    const std::string portText = "portKind: 8 (0x8: takes no direct requests)\nportName: \"LPT1:\"\nportDetail: ";
    const std::string office = "B\xc3\xbcro 5\xe2\x82\xac";
    const struct {
        const char* variable;
        Words value;
        std::string text;
        Json json;
    } rows[] = {
        {"PageCount", {"1234"}, "1234 (0x4D2)", 1234},
        {"PageCount", {"unknown"}, "unknown", nullptr},
        {"PageCount", {"-2"}, "4294967294 (0xFFFFFFFE)", 4294967294u},
        {"PageCount", {"--hex", "0x07,00 0000"}, "7", 7},
        {"SpoolerStatus", {"12"}, "12 (0xC: ready for forwarded requests, takes refresh requests)", 12},
        {"PrinterLocation", {office}, office, office},
        {"PrinterLocation", {"--hex", "1b 5b 31 6d 0a 41 00"}, "\\x1b[1m\\nA", "\x1b[1m\nA"},
        {"PrinterStatus", {"--hex", "01000000 02000000 ffffffff"}, "1, 2, unknown", {1, 2, nullptr}},
        {"Port", {"portKind=8", "portName=LPT1:"}, portText + "\"\"", port("")},
        {"Port", {"portDetail=x"}, portText + "\"x\"", port("x")}, // the others are kept
        {"PrinterBinConfig", {"--hex", "010203"}, "01 02 03", nullptr},
        {"PrinterQueue", {"--file", queueFile}, queueText, {report, letter}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(std::string(row.variable) + " " + row.value[0]);
        Words command = {"set", kPrinter, row.variable};
        command.insert(command.end(), row.value.begin(), row.value.end());
        EXPECT_EQ(OrielText(command), "");
        EXPECT_EQ(OrielText({"get", kPrinter, row.variable}), row.text);
        EXPECT_EQ(ValueOf(kPrinter, row.variable), row.json);
    }
    EXPECT_EQ(OrielText({"get", kPrinter, "PageCount", "PrinterBinConfig", "--hex"}),
              "PageCount: 07 00 00 00\nPrinterBinConfig: 01 02 03");

    const std::string written = OrielText({"info", kPrinter, "PageCount"});
    EXPECT_TRUE(written.size() == 24 && written[10] == 'T' && written.back() == 'Z') << written;

    // One that fails does not keep the others from being shown.
    const Json mixed = OrielJson({"get", kPrinter, "Nothing", "PageCount"}, 1)["variables"];
    EXPECT_EQ(mixed[0]["error"]["code"], -19);
    EXPECT_EQ(mixed[1]["value"], 7);
}
