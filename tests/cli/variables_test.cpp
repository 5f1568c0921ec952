// Values of every kind through the command, out and in.
#include "private_machine.h"
#include "product.h"

#include <tvsqdz.h>
#include <tvsqdz_variables.h>

#include <gtest/gtest.h>

#include <cstring>
#include <fstream>

namespace {

const std::string kPrinter = "Front desk";

Json Variable(const std::string& name) {
    return OrielJson({"get", kPrinter, name})["variables"][0];
}

} // namespace

TEST(Variables, AllAreListedWithTheirInitialValues) {
    AddExamplePrinter();
    RunningProduct product;
    const Json document = OrielJson({"vars", kPrinter});
    EXPECT_EQ(document["printer"], kPrinter);
    std::map<std::string, Json> variables;
    for (const Json& variable : document["variables"])
        variables[variable["name"]] = variable;
    EXPECT_EQ(variables.size(), 59u);
    EXPECT_EQ(document["variables"].size(), variables.size());

    const std::map<std::string, std::string> types = {{"NUMBER", "number"},
                                                      {"STRING", "string"},
                                                      {"RECORD", "record"},
                                                      {"VARIABLE", "variable"},
                                                      {"COMPOSITE", "composite"}};
#define ROW(name, type, size) {#name, #type, size},
    const std::tuple<const char*, const char*, size_t> rows[] = {TVS_BUILT_IN_VARIABLES(ROW)};
#undef ROW
    for (const auto& [name, type, size] : rows) {
        SCOPED_TRACE(name);
        const Json& variable = variables[name];
        EXPECT_EQ(variable["type"], types.at(type));
        EXPECT_EQ(variable["size"], size);
        EXPECT_TRUE(variable.contains("written"));
        EXPECT_FALSE(variable.contains("error")) << variable;
        if (size == 0 || variable["type"] == "string" || name == std::string("AccessControlList")) continue;
        EXPECT_EQ(variable["hex"].get<std::string>().size() + 1, size * 3);
    }
    EXPECT_EQ(variables["PageCount"]["value"], Json()) << "not known yet";
    EXPECT_EQ(variables["PageCount"]["raw"], 0xffffffffu);
    EXPECT_EQ(variables["SpoolerStatus"]["bits"], Json::array());
    EXPECT_EQ(variables["PrinterStatus"]["value"], Json({0, 0, 0}));
    EXPECT_EQ(variables["PrinterName"]["value"], kPrinter);
    EXPECT_EQ(variables["PrinterQueue"]["value"], Json::array());
    EXPECT_EQ(variables["PortEx"]["value"],
              Json({{"PrinterExtStatus", 0}, {"Port", {{"portKind", 0}, {"portName", ""}, {"portDetail", ""}}}}));
    EXPECT_EQ(variables["PrinterStatusEx"]["value"].size(), 5u); // ErrNSMError is in no model
    EXPECT_EQ(variables["TonerLevel"]["value"], 100);
    EXPECT_EQ(variables["TonerLevel"]["source"], "model");
    EXPECT_EQ(variables["PrinterModel"]["value"], "Example Laser 4000");
    EXPECT_EQ(variables["PrinterModel"]["source"], "model");

    const Json some = OrielJson({"vars", kPrinter, "toner*", "Page?ount"});
    ASSERT_EQ(some["variables"].size(), 2u);
    EXPECT_EQ(some["variables"][0]["name"], "PageCount");

    // A model that is changed after the first open.
    const std::string model = R"(HKLM\SOFTWARE\Tavik\Oriel\Printers\Example Laser\Status Variables)";
    OrielText({"reg", "set", model, "Later", "04000000 04010100 64000000", "--type", "binary"});
    EXPECT_EQ(OrielJson({"vars", kPrinter, "Later"})["variables"][0]["error"]["code"], -5);
    EXPECT_NE(Oriel({"vars", kPrinter, "Later"}).errors.find("restart the product"), std::string::npos);
}

TEST(Variables, WhatIsSetIsRead) {
    AddExamplePrinter();
    RunningProduct product;
    struct Case {
        const char* variable;
        std::vector<std::string> value;
        const char* text;
        Json json;
    };
    const Case kCases[] = {
        {"PageCount", {"1234"}, "1234 (0x4D2)", 1234},
        {"PageCount", {"0x10"}, "16 (0x10)", 16},
        {"PageCount", {"unknown"}, "unknown", nullptr},
        {"PageCount", {"-2"}, "4294967294 (0xFFFFFFFE)", 4294967294u},
        {"PageCount", {"--hex", "0x07,00 0000"}, "7", 7},
        {"SpoolerStatus", {"12"}, "12 (0xC: ready for forwarded requests, takes refresh requests)", 12},
        {"PrinterExtStatus", {"1"}, "1 (0x1: takes direct requests)", 1},
        {"PrinterLocation", {"B\xc3\xbcro 5\xe2\x82\xac"}, "B\xc3\xbcro 5\xe2\x82\xac", "B\xc3\xbcro 5\xe2\x82\xac"},
        {"PrinterLocation", {""}, "", ""},
        {"PrinterLocation", {"--hex", "1b 5b 31 6d 0a 41 00"}, "\\x1b[1m\\nA", "\x1b[1m\nA"},
        {"PrinterStatus", {"--hex", "01000000 02000000 ffffffff"}, "1, 2, unknown", {1, 2, nullptr}},
        {"Port",
         {"portKind=8", "portName=LPT1:"},
         "portKind: 8 (0x8: takes no direct requests)\nportName: \"LPT1:\"\nportDetail: \"\"",
         {{"portKind", 8}, {"portName", "LPT1:"}, {"portDetail", ""}}},
        {"Port",
         {"portDetail=x"}, // the others are kept
         "portKind: 8 (0x8: takes no direct requests)\nportName: \"LPT1:\"\nportDetail: \"x\"",
         {{"portKind", 8}, {"portName", "LPT1:"}, {"portDetail", "x"}}},
        {"PrinterBinConfig", {"--hex", "010203"}, "01 02 03", nullptr},
    };
    for (const Case& row : kCases) {
        SCOPED_TRACE(std::string(row.variable) + " " + row.value[0]);
        std::vector<std::string> command = {"set", kPrinter, row.variable};
        command.insert(command.end(), row.value.begin(), row.value.end());
        EXPECT_EQ(OrielText(command), "");
        EXPECT_EQ(OrielText({"get", kPrinter, row.variable}), row.text);
        EXPECT_EQ(Variable(row.variable)["value"], row.json);
    }
    EXPECT_EQ(OrielText({"get", kPrinter, "PageCount", "PrinterBinConfig", "--hex"}),
              "PageCount: 07 00 00 00\nPrinterBinConfig: 01 02 03");

    const std::string written = OrielText({"info", kPrinter, "PageCount"});
    EXPECT_TRUE(written.size() == 24 && written[10] == 'T' && written.back() == 'Z') << written;
    EXPECT_EQ(OrielJson({"info", kPrinter, "PageCount"})["variables"][0]["written"], written);

    // One that fails does not keep the others from being shown.
    const Json mixed = OrielJson({"get", kPrinter, "Nothing", "PageCount"}, 1)["variables"];
    EXPECT_EQ(mixed[0]["error"]["code"], -19);
    EXPECT_EQ(mixed[1]["value"], 7);
}

TEST(Variables, JobsAndTheirQueues) {
    AddExamplePrinter();
    RunningProduct product;
    OrielText({"set", kPrinter, "SendingJobInfo", "jobName=Report", "ownerName=ann"});
    OrielText({"set", kPrinter, "SendingJobInfo", "jobName=Letter"}); // the owner is kept
    EXPECT_EQ(Variable("SendingJobInfo")["value"], Json({{"jobName", "Letter"}, {"ownerName", "ann"}, {"jobId", 0}}));

    // A queue as the bytes of a file; its last name has no NUL.
    TvsJobRecord jobs[2] = {{"Report", "ann", 7}, {"Letter", "", 8}};
    std::memset(jobs[1].ownerName, 'A', sizeof jobs[1].ownerName);
    const std::string file = PrivateDirectory() + "/queue";
    const auto writeQueue = [&](uint32_t count) {
        std::ofstream stream(file, std::ios::binary);
        stream.write(reinterpret_cast<const char*>(&count), sizeof count);
        stream.write(reinterpret_cast<const char*>(jobs), sizeof jobs);
        stream.close();
        OrielText({"set", kPrinter, "PrinterQueue", "--file", file});
    };
    const Json report = {{"jobName", "Report"}, {"ownerName", "ann"}, {"jobId", 7}};
    const Json letter = {{"jobName", "Letter"}, {"ownerName", std::string(32, 'A')}, {"jobId", 8}};
    writeQueue(2);
    EXPECT_EQ(Variable("PrinterQueue")["value"], Json({report, letter}));
    EXPECT_TRUE(OrielText({"get", kPrinter, "PrinterQueue"})
                    .starts_with("jobName \"Report\", ownerName \"ann\", jobId 7\njobName \"Letter\""));
    writeQueue(1);
    EXPECT_EQ(Variable("PrinterQueue")["value"], Json::array({report}));
    writeQueue(0xffffffff); // more than there are
    EXPECT_EQ(Variable("PrinterQueue")["value"], Json({report, letter}));
}

TEST(Variables, DoubleByteCodePage) {
    const Environment japanese = {{"ORIEL_ANSI_CODE_PAGE", "932"}};
    const std::string name = "\xe5\x8f\x97\xe4\xbb\x98";               // reception
    const std::string floor = "\xe4\xba\x8c\xe9\x9a\x8e \xe8\xa1\xa8"; // its last character ends with a backslash byte
    RunningProduct product(japanese);
    OrielText({"printers", "add", name, "--driver", "Some driver"}, japanese);
    EXPECT_EQ(OrielJson({"printers"}, 0, japanese)["printers"][0]["name"], name);
    OrielText({"set", name, "PrinterLocation", floor}, japanese);
    EXPECT_EQ(OrielText({"get", name, "PrinterLocation"}, japanese), floor);
    EXPECT_EQ(OrielText({"get", name, "PrinterName"}, japanese), name);
    const Json value = OrielJson({"get", name, "PrinterLocation"}, 0, japanese)["variables"][0];
    EXPECT_EQ(value["hex"], "93 f1 8a 4b 20 95 5c 00");
    const ProgramResult refused = Oriel({"set", name, "PrinterLocation", "\xc3\xbc"}, japanese);
    EXPECT_EQ(refused.exitCode, 2);
    EXPECT_NE(refused.errors.find("code page 932"), std::string::npos) << refused.errors;
}
