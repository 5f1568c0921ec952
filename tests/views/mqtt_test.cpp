// What the bridge keeps for a broker, and the names in topics.
#include "mqtt/messages.h"
#include "mqtt/outbox.h"
#include "mqtt/topics.h"

#include <gtest/gtest.h>

using namespace views;

namespace {

// "topic=document" of all that is sent now, acknowledged at once.
std::vector<std::string> Sent(Outbox& outbox) {
    std::vector<std::string> sent;
    while (const std::optional<Outgoing> message = outbox.Next()) {
        sent.push_back(message->topic + "=" + message->payload);
        outbox.Taken(message->topic);
    }
    return sent;
}

using List = std::vector<std::string>;

} // namespace

TEST(MqttOutbox, SendsTheLastDocumentOfEachTopicAndAllOfThemAgain) {
    Outbox outbox;
    for (int i = 0; i < 1000; ++i)
        outbox.Put(i % 2 ? "odd" : "even", std::to_string(i));
    EXPECT_EQ(Sent(outbox), (List{"even=998", "odd=999"}));
    EXPECT_FALSE(outbox.Put("odd", "999"));
    EXPECT_EQ(Sent(outbox), List{});

    outbox.Clear("even");
    outbox.SendAll();
    EXPECT_EQ(Sent(outbox), (List{"even=", "odd=999"}));
    outbox.SendAll();
    EXPECT_EQ(Sent(outbox), List{"odd=999"}); // what the broker has forgotten is gone here too

    // A topic of an earlier run that is written meanwhile stays.
    EXPECT_FALSE(outbox.ClearUnknown("odd"));
    EXPECT_TRUE(outbox.ClearUnknown("old") && outbox.ClearUnknown("again"));
    outbox.Put("again", "1");
    EXPECT_EQ(Sent(outbox), (List{"old=", "again=1"}));
    outbox.Tell("answer", "once");
    EXPECT_EQ(Sent(outbox), List{"answer=once"});
    EXPECT_EQ(Sent(outbox), List{});
}

TEST(MqttTopics, NamesAreOneLevelAndComeBackUnchanged) {
    for (const char* name : {"Front desk", "a/b", "+", "#", "$SYS", "%2F", "%", "Büro 日本", "\xEF\xBF\xBF"}) {
        const std::string level = LevelOf(name);
        EXPECT_EQ(level.find_first_of("/+#"), std::string::npos) << name;
        EXPECT_EQ(NameOfLevel(level), name);
        const std::string topic = MachineTopics("site/oriel", name).Value("p/" + level, name);
        const std::optional<Topic> parsed = ParseTopic("site/oriel", topic);
        ASSERT_TRUE(parsed) << topic;
        EXPECT_EQ((List{parsed->machine, parsed->printer, parsed->variable}), (List{name, "p/" + level, name}));
    }
    EXPECT_EQ(LevelOf(""), "%");
    for (const char* level : {"", "%2", "%zz", "%00", "%1B", "%FF", "a%"})
        EXPECT_FALSE(NameOfLevel(level)) << level;
    EXPECT_FALSE(NameOfLevel(std::string(5000, 'x')));
    for (const char* topic :
         {"", "oriel", "oriel/", "orielx/m/available", "oriel//available", "oriel/m/printers//about",
          "oriel/m/printers/p/values/", "oriel/m/printers/p/values/v/w", "oriel/m/available/x"})
        EXPECT_FALSE(ParseTopic("oriel", topic)) << topic;
    for (const char* prefix : {"", "/", "a/", "a//b", "#", "a/+", "$a"})
        EXPECT_FALSE(IsPrefix(prefix)) << prefix;
}

TEST(MqttMessages, ValuesComeBackAndDocumentsOfOthersAreChecked) {
    const Value value{.json = {{"jobName", "a\"b"}, {"jobId", 4294967295u}},
                      .text = "x",
                      .meaning = "paper jam",
                      .severity = product::Severity::Error,
                      .origin = "device",
                      .writes = 1ull << 40,
                      .writtenMs = 1700000000123};
    const std::optional<Value> parsed = ParseValue(ValueDocument(value));
    ASSERT_TRUE(parsed);
    EXPECT_EQ(ValueDocument(*parsed), ValueDocument(value));

    for (const char* document : {"", "1", "[]", "{}", "{\"value\":", "{\"value\":1}x"})
        EXPECT_FALSE(ParseValue(document)) << document;
    EXPECT_FALSE(ParseValue("{\"value\":\"" + std::string(kDocumentMax, 'x') + "\"}"));
    EXPECT_FALSE(ParseValue("{\"value\":" + std::string(8, '[') + std::string(8, ']') + "}"));
    EXPECT_TRUE(ParseValue("{\"value\":\"" + std::string(100, '[') + "\\\"[\"}"));
    const std::optional<Value> hostile =
        ParseValue(R"({"value":{"\u001b":["\u0007"]},"seq":-1,"time":1e300,"text":"\u001b[2J","severity":"?"})");
    ASSERT_TRUE(hostile);
    EXPECT_EQ(hostile->json.dump().find("\\u00"), std::string::npos) << hostile->json;
    EXPECT_EQ(hostile->text.find('\x1b'), std::string::npos);
    EXPECT_EQ(hostile->writes, 0u);
    EXPECT_EQ(hostile->writtenMs, 0);

    for (const char* document :
         {R"({"command":"cancel"})", R"({"command":"cancel","job":0})", R"({"command":"cancel","job":4294967296})",
          R"({"command":"rm","job":1})", R"({"command":["cancel"],"job":1})"})
        EXPECT_FALSE(ParseCommand(document)) << document;
}
