// m2ctl and m2-sim as a user runs them: child processes whose output and exit code are
// checked, against the embedded simulator, an in-process one, and `m2ctl sim`.
#include <chrono>
#include <fstream>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <m2Types/m2Types.hpp>
#include <vesk/duvo/opcua/pki.hpp>
#include <vesk/duvo/sim/simulator.hpp>

#include "support/simulatorFixture.hpp"
#include "tool/program.hpp"

namespace {

using namespace std::chrono_literals;
using duvo::test::Outcome;
using duvo::test::Program;

Outcome run(std::vector<std::string> args, const std::vector<std::string>& env = {}) {
    return Program(M2CTL_PROGRAM, std::move(args), env).finish();
}

/// The words of a command line.
std::vector<std::string> words(const std::string& line) {
    std::istringstream in(line);
    std::vector<std::string> out;
    for (std::string w; in >> w;) out.push_back(w);
    return out;
}

/// A file in the test's temporary folder with the text.
std::string writeFile(const std::string& name, const std::string& text) {
    const std::string path = ::testing::TempDir() + name;
    std::ofstream(path) << text;
    return path;
}

std::vector<std::string> lines(const std::string& text) {
    std::vector<std::string> out;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) out.push_back(line);
    return out;
}

/// The line whose first or second word is the word, or "".
std::string lineOf(const std::string& text, const std::string& word) {
    for (const auto& line : lines(text)) {
        const auto w = words(line);
        if ((!w.empty() && w[0] == word) || (w.size() > 1 && w[1] == word)) return line;
    }
    return {};
}

std::size_t count(const std::string& text, const std::string& what) {
    std::size_t n = 0;
    for (auto at = text.find(what); at != std::string::npos; at = text.find(what, at + what.size())) ++n;
    return n;
}

template <class... Ts, class... Is>
std::vector<std::pair<std::string, std::string>> catalogue(m2Types::TypeList<Ts...>, m2Types::TypeList<Is...>) {
    return {{"type", Ts::typeName}..., {"interface", Is::interfaceName}...};
}

/// A failure is one line on stderr, "m2ctl: " and the message.
void expectOneErrorLine(const Outcome& o, const std::string& part) {
    ASSERT_EQ(count(o.err, "\n"), 1u) << o.err;
    EXPECT_EQ(o.err.rfind("m2ctl: ", 0), 0u) << o.err;
    EXPECT_NE(o.err.find(part), std::string::npos) << o.err;
}

TEST(M2ctlTour, publishes_reads_back_and_calls_everything_on_the_embedded_simulator_as_text_and_json) {
    const Outcome o = run({"tour"});
    ASSERT_EQ(o.code, 0) << o.out << o.err;
    EXPECT_EQ(o.err, "");
    for (const auto& [kind, name] : catalogue(m2Types::DataTypes{}, m2Types::Interfaces{})) {
        const std::string line = lineOf(o.out, name);
        EXPECT_EQ(line.rfind(kind, 0), 0u) << name << " missing:\n" << o.out;
        EXPECT_NE(line.find(" ok "), std::string::npos) << line;
    }
    EXPECT_NE(o.out.find("47 of 47 passed"), std::string::npos) << o.out;

    const Outcome json = run({"tour", "--json"});
    ASSERT_EQ(json.code, 0) << json.out << json.err;
    EXPECT_EQ(json.out.front(), '{');
    EXPECT_EQ(count(json.out, "{"), count(json.out, "}"));
    EXPECT_EQ(count(json.out, "["), count(json.out, "]"));
    EXPECT_EQ(count(json.out, "\"kind\":\"type\""), 24u);
    EXPECT_EQ(count(json.out, "\"kind\":\"interface\""), 23u);
    EXPECT_EQ(count(json.out, "\"ok\":true"), 47u);
    EXPECT_NE(json.out.find("\"passed\":47,\"failed\":0"), std::string::npos) << json.out;
    EXPECT_NE(json.out.find("\"embeddedSimulator\":true"), std::string::npos);
}

TEST(M2ctlList, shows_every_shape_and_argument_list_and_every_command_explains_itself) {
    const Outcome o = run({"list"});
    ASSERT_EQ(o.code, 0) << o.err;
    EXPECT_NE(lineOf(o.out, "M2FloatVector6").find("Float    array  6       ns=1;s=M2FloatVector6"), std::string::npos);
    EXPECT_NE(lineOf(o.out, "M2Uint64Value0").find("UInt64   scalar -"), std::string::npos);
    EXPECT_NE(lineOf(o.out, "M2StringVector15").find("String   array  15"), std::string::npos);
    EXPECT_NE(lineOf(o.out, "WhRpcDeadZoneCalibrationAds").find("RPC_DeadZoneCalibrationAds    Boolean, Float x15"),
              std::string::npos);
    EXPECT_NE(lineOf(o.out, "OpRpcSystemBuiltInTest").find("Byte, Int16, Int16"), std::string::npos);
    EXPECT_NE(lineOf(o.out, "PsRpcLegPositionSetpoint").find("Double[]"), std::string::npos);

    const Outcome json = run({"list", "--json", "--endpoint", "opc.tcp://device:4841"});
    ASSERT_EQ(json.code, 0) << json.err;
    EXPECT_EQ(count(json.out, "\"opcuaType\""), 24u);
    EXPECT_EQ(count(json.out, "\"methodNodeId\""), 23u);
    EXPECT_NE(
        json.out.find("\"uri\":\"opcua-rr://device:4841#ns=1;s=PsRpcSetpower,ns=1;s=PsRpcSetpower.RPC_SetPower\""),
        std::string::npos);

    for (const std::string command : {"list", "pub", "sub", "call", "sim", "tour", "check"}) {
        const Outcome help = run({command, "--help"});
        EXPECT_EQ(help.code, 0) << command;
        EXPECT_EQ(help.out.rfind("Usage: m2ctl " + command, 0), 0u) << help.out;
    }
    EXPECT_EQ(run({"--help"}).code, 0);
}

TEST(M2ctlErrors, bad_command_lines_exit_2_unreachable_servers_1_always_with_one_line_on_stderr) {
    const std::string unreachable = " --endpoint opc.tcp://127.0.0.1:1 --timeout 300";
    const struct {
        std::string line;
        int code;
        std::string message;
    } table[] = {
        {"", 2, "no command given"},
        {"frobnicate", 2, "unknown command \"frobnicate\""},
        {"pub M2NoSuchType 1", 2, "unknown type \"M2NoSuchType\""},
        {"call NoSuchInterface 1", 2, "unknown interface \"NoSuchInterface\""},
        {"pub M2Uint8Value0 256", 2, "bad value \"256\" for M2Uint8Value0: out of range for Byte (0 to 255)"},
        {"pub M2Uint8Value0 -1", 2, "out of range for Byte"},
        {"pub M2Int16Value0 32768", 2, "out of range for Int16 (-32768 to 32767)"},
        {"pub M2FloatValue0 1e39", 2, "out of range for Float"},
        {"pub M2Int32Value0 12abc", 2, "bad value \"12abc\" for M2Int32Value0: not an integer"},
        {"pub M2DoubleVector6 1,x,3", 2, "M2DoubleVector6 element 1: not a number"},
        {"pub M2BooleanValue0 yes", 2, "expected true, false, 1 or 0"},
        {"pub M2Int32Value0 1 2", 2, "M2Int32Value0 takes one Int32 value, got 2"},
        {"call PsRpcLegPositionSetpointAds 1,2,3", 2, "PsRpcLegPositionSetpointAds takes 6 values (Double x6), got 3"},
        {"call OpRpcSystemBuiltInTest 1 2 -40000", 2, "argument 3: out of range for Int16"},
        {"sub M2Int32Value0 --mode stream", 2, "bad mode \"stream\""},
        {"pub M2Int32Value0 1 --frequency 2", 2, "unrecognised option '--frequency'"},
        {"pub M2Int32Value0 1 --endpoint http://device", 2, "bad endpoint \"http://device\""},
        {"pub M2Int32Value0 1 --uri opcua-ps://127.0.0.1:1", 2, "opcua-ps://127.0.0.1:1"},
        {"pub M2Int32Value0 1" + unreachable, 1, "cannot connect to opc.tcp://127.0.0.1:1 within 300 ms"},
        {"sub M2Int32Value0" + unreachable, 1, "cannot connect"},
        {"call PsRpcSetpower true" + unreachable, 1, "cannot connect"},
        {"tour" + unreachable, 1, "cannot connect"},
    };
    for (const auto& row : table) {
        SCOPED_TRACE("m2ctl " + row.line);
        const Outcome o = run(words(row.line));
        EXPECT_EQ(o.code, row.code) << o.out << o.err;
        expectOneErrorLine(o, row.message);
    }
}

/// Commands against a simulator in this process, which shows what arrived.
class M2ctlOnSimulator : public duvo::test::SimulatorSuite {
protected:
    static Outcome m2ctl(std::vector<std::string> args) {
        args.push_back("--endpoint");
        args.push_back(simulator->endpoint());
        return run(std::move(args));
    }
};

TEST_F(M2ctlOnSimulator, pub_writes_the_parsed_value_and_time_that_sub_reads_back_in_every_mode) {
    Outcome o = m2ctl({"pub", "M2FloatVector6", "1.5,-2, 3,4,5,6.25"});
    ASSERT_EQ(o.code, 0) << o.err;
    const auto written = simulator->read("M2FloatVector6");
    ASSERT_TRUE(written.hasType(&UA_TYPES[UA_TYPES_FLOAT]));
    ASSERT_EQ(written.arrayLength(), 6u);
    EXPECT_EQ(written.at<float>(1), -2.0f);
    EXPECT_EQ(written.at<float>(5), 6.25f);

    o = m2ctl({"sub", "M2FloatVector6", "--mode", "mrv", "--count", "1", "--duration", "5"});
    ASSERT_EQ(o.code, 0) << o.err;
    EXPECT_NE(o.out.find("M2FloatVector6 = [1.5, -2, 3, 4, 5, 6.25]"), std::string::npos) << o.out;

    // Separate arguments, negative ones included, and the limits of narrow types.
    ASSERT_EQ(m2ctl({"pub", "M2Int16Value0", "-32768"}).code, 0);
    ASSERT_EQ(m2ctl({"pub", "M2Uint8Value0", "255"}).code, 0);
    ASSERT_EQ(m2ctl({"pub", "M2StringVector15", "a b", "", "c,d"}).code, 0);
    EXPECT_EQ(simulator->read("M2Int16Value0").at<UA_Int16>(), -32768);
    EXPECT_EQ(simulator->read("M2Uint8Value0").at<UA_Byte>(), 255);
    EXPECT_EQ(simulator->read("M2StringVector15").arrayLength(), 3u);

    o = m2ctl({"sub", "M2Int16Value0", "--mode", "poll", "--period", "20", "--count", "1", "--duration", "5"});
    EXPECT_NE(o.out.find("M2Int16Value0 = -32768"), std::string::npos) << o.out << o.err;
    o = m2ctl({"sub", "M2StringVector15", "--count", "1", "--duration", "5", "--json"});
    EXPECT_NE(o.out.find("\"value\":[\"a b\",\"\",\"c,d\"]"), std::string::npos) << o.out << o.err;

    // pub's timestamp becomes the source time that sub prints.
    ASSERT_EQ(m2ctl({"pub", "M2Int32Value0", "-7", "--timestamp", "1700000000.5"}).code, 0);
    o = m2ctl({"sub", "M2Int32Value0", "--count", "1", "--duration", "5", "--json"});
    ASSERT_EQ(o.code, 0) << o.err;
    EXPECT_EQ(o.out, "{\"type\":\"M2Int32Value0\",\"sourceTime\":\"2023-11-14T22:13:20.500Z\",\"value\":-7}\n");
}

TEST_F(M2ctlOnSimulator, sub_fails_when_fewer_samples_than_counted_arrive_in_time_and_says_why) {
    Outcome o = m2ctl({"sub", "M2Int32Value0", "--count", "3", "--duration", "0.5"});
    EXPECT_EQ(o.code, 1);
    expectOneErrorLine(o, "received 1 of 3 samples of M2Int32Value0 within 0.5 s");

    // A variable of another type: the conversion error is the reason (the poller logs none).
    const std::string floatNode =
        "opcua-ps://" + simulator->endpoint().substr(std::string("opc.tcp://").size()) + "#ns=1;s=M2FloatValue0";
    for (const std::string mode : {"monitor", "mrv"}) {
        o = run({"sub", "M2Int32Value0", "--uri", floatNode, "--mode", mode, "--period", "20", "--count", "1",
                 "--duration", "1"});
        EXPECT_EQ(o.code, 1) << mode;
        expectOneErrorLine(o, "received 0 of 1 samples of M2Int32Value0 within 1 s; last problem: ");
        EXPECT_NE(o.err.find("expected Int32, received Float"), std::string::npos) << mode << ": " << o.err;
    }
    // An unknown node: the read status.
    o = run({"sub", "M2Int32Value0", "--uri", floatNode + "Nowhere", "--count", "1", "--duration", "1"});
    expectOneErrorLine(o, "BadNodeIdUnknown");
}

TEST_F(M2ctlOnSimulator, call_sends_the_parsed_arguments_sync_and_async_and_call_and_tour_fail_on_false_or_refused) {
    Outcome o = m2ctl({"call", "OpRpcSystemBuiltInTest", "7", "-2", "300"});
    ASSERT_EQ(o.code, 0) << o.err;
    EXPECT_NE(o.out.find("OpRpcSystemBuiltInTest.RPC_BuiltInTest(7, -2, 300) -> true"), std::string::npos) << o.out;
    auto record = simulator->calls("OpRpcSystemBuiltInTest");
    ASSERT_EQ(record.count, 1u);
    EXPECT_EQ(record.lastArguments[0].at<UA_Byte>(), 7);
    EXPECT_EQ(record.lastArguments[1].at<UA_Int16>(), -2);
    EXPECT_EQ(record.lastArguments[2].at<UA_Int16>(), 300);

    std::string values = "false";
    for (int i = 1; i <= 15; ++i) values += "," + std::to_string(i) + ".5";
    o = m2ctl({"call", "WhRpcDeadZoneCalibrationAds", values, "--async", "--json"});
    ASSERT_EQ(o.code, 0) << o.err;
    EXPECT_NE(o.out.find("\"async\":true"), std::string::npos) << o.out;
    record = simulator->calls("WhRpcDeadZoneCalibrationAds");
    ASSERT_EQ(record.lastArguments.size(), 16u);
    EXPECT_FALSE(record.lastArguments[0].at<UA_Boolean>());
    EXPECT_EQ(record.lastArguments[15].at<UA_Float>(), 15.5f);

    ASSERT_EQ(m2ctl({"call", "PsRpcLegPositionSetpoint", "1", "-2", "3"}).code, 0);
    record = simulator->calls("PsRpcLegPositionSetpoint");
    ASSERT_TRUE(record.lastArguments[0].hasType(&UA_TYPES[UA_TYPES_DOUBLE]));
    EXPECT_EQ(record.lastArguments[0].arrayLength(), 3u);

    // call and tour fail on a false result or a refused write.
    vesk::duvo::sim::Reply no;
    no.result = false;
    simulator->setReply("WhRpcSetpower", no);
    o = m2ctl({"call", "WhRpcSetpower", "1"});
    EXPECT_EQ(o.code, 1);
    EXPECT_NE(o.out.find("-> false"), std::string::npos) << o.out;
    expectOneErrorLine(o, "WhRpcSetpower.RPC_SetPower returned false");

    simulator->setWritable("M2Uint16Vector62", false);
    o = m2ctl({"tour", "--timeout", "1000"});
    simulator->setWritable("M2Uint16Vector62", true);
    EXPECT_EQ(o.code, 1);
    EXPECT_NE(lineOf(o.out, "M2Uint16Vector62").find("FAILED"), std::string::npos) << o.out;
    EXPECT_NE(lineOf(o.out, "WhRpcSetpower").find("FAILED"), std::string::npos) << o.out;
    EXPECT_NE(lineOf(o.out, "PsRpcSetpower").find(" ok "), std::string::npos) << o.out;
    EXPECT_NE(o.out.find("45 of 47 passed"), std::string::npos) << o.out;
    expectOneErrorLine(o, "2 of 47 failed: M2Uint16Vector62, WhRpcSetpower");
}

TEST_F(M2ctlOnSimulator, map_moves_pub_sub_call_and_tour_to_other_nodes_and_a_bad_map_is_one_line) {
    // Two entities moved to nodes of the same shape, the rest left out; the endpoint from the map.
    const std::string map =
        writeFile("device.json", "{\"endpoint\": \"" + simulator->endpoint() +
                                     "\",\n \"types\": {\"M2Uint16Value0\": \"ns=1;s=M2Uint16Scalar\"},\n"
                                     " \"interfaces\": {\"PsRpcSetpower\": {\"object\": "
                                     "\"ns=1;s=WhRpcSetpower\", \"method\": "
                                     "\"ns=1;s=WhRpcSetpower.RPC_SetPower\"}}}");
    Outcome o = run({"pub", "M2Uint16Value0", "4321", "--map", map});
    ASSERT_EQ(o.code, 0) << o.err;
    EXPECT_EQ(simulator->read("M2Uint16Scalar").at<UA_UInt16>(), 4321);
    EXPECT_EQ(simulator->read("M2Uint16Value0").at<UA_UInt16>(), 0);
    o = run({"sub", "M2Uint16Value0", "--map", map, "--count", "1", "--duration", "5"});
    EXPECT_NE(o.out.find("M2Uint16Value0 = 4321"), std::string::npos) << o.out << o.err;
    ASSERT_EQ(run({"call", "PsRpcSetpower", "true", "--map", map}).code, 0);
    EXPECT_EQ(simulator->calls("WhRpcSetpower").count, 1u);
    EXPECT_EQ(simulator->calls("PsRpcSetpower").count, 0u);
    o = run({"tour", "--map", map});
    EXPECT_EQ(o.code, 0) << o.out << o.err;
    EXPECT_NE(o.out.find("2 of 2 passed (1 types published and read back, 1 interfaces called)"), std::string::npos)
        << o.out;
    expectOneErrorLine(run({"pub", "M2Int32Value0", "1", "--map", map}), "M2Int32Value0 is not in the map");

    // `list --map` is a map that works as it is.
    const Outcome listed = run({"list", "--map", "--endpoint", simulator->endpoint()});
    ASSERT_EQ(listed.code, 0) << listed.err;
    const std::string full = writeFile("simulator.json", listed.out);
    EXPECT_EQ(run({"call", "OpRpcSystemStop", "1", "--map", full}).code, 0);

    for (const auto& [text, message] : std::vector<std::pair<std::string, std::string>>{
             {"{\"types\": {\"M2Int32Value0\": \"ns=1;s=A\",}}", "line 1: expected a key in double quotes"},
             {"{\"types\": {\"M2NoSuchType\": \"ns=1;s=A\"}}", "types.M2NoSuchType: no such type"},
             {"{\"types\": {\"M2Int32Value0\": \"ns=x;s=A\"}}", "types.M2Int32Value0: not an OPC UA node id"},
             {"{\"interfaces\": {\"PsRpcSetpower\": {\"object\": \"ns=1;s=A\"}}}",
              "interfaces.PsRpcSetpower.method: missing"},
             {"{\"endpoint\": \"device:4840\"}", "endpoint: expected opc.tcp://HOST:PORT"},
             {"{\"type\": {}}", "type: unknown key"}}) {
        const std::string bad = writeFile("bad.json", text);
        o = run({"check", "--map", bad});
        EXPECT_EQ(o.code, 2) << text;
        expectOneErrorLine(o, "bad map \"" + bad + "\": " + message);
    }
}

TEST_F(M2ctlOnSimulator, check_conforms_and_names_each_planted_fault) {
    Outcome o = m2ctl({"check"});
    EXPECT_EQ(o.code, 0) << o.out << o.err;
    EXPECT_NE(o.out.find("47 of 47 conform (0 mismatch, 0 missing)"), std::string::npos) << o.out;

    vesk::duvo::sim::Options options;
    options.otherDataType = {"M2FloatVector6"};
    options.lastArgumentDropped = {"OpRpcSystemBuiltInTest"};
    vesk::duvo::sim::Simulator planted(options);
    planted.setWritable("M2Int32Value0", false);
    planted.start();
    // A node that is not there, through a map.
    const std::string map = writeFile("missing.json", "{\"types\": {\"M2Int8Value0\": \"ns=1;s=Nowhere\"}}");
    o = run({"check", "--endpoint", planted.endpoint()});
    EXPECT_EQ(o.code, 1);
    EXPECT_EQ(lineOf(o.out, "M2FloatVector6"),
              "type      M2FloatVector6                 mismatch: DataType expected Float found Double");
    EXPECT_EQ(
        lineOf(o.out, "M2Int32Value0"),
        "type      M2Int32Value0                  mismatch: AccessLevel expected readable, writable found readable");
    EXPECT_EQ(
        lineOf(o.out, "OpRpcSystemBuiltInTest"),
        "interface OpRpcSystemBuiltInTest         mismatch: InputArguments expected 3 (Byte, Int16, Int16) found 2 "
        "(Byte, Int16)");
    EXPECT_NE(lineOf(o.out, "M2FloatVector8").find(" ok"), std::string::npos) << o.out;
    EXPECT_NE(o.out.find("44 of 47 conform (3 mismatch, 0 missing)"), std::string::npos) << o.out;
    expectOneErrorLine(o, "3 of 47 do not conform: M2FloatVector6, M2Int32Value0, OpRpcSystemBuiltInTest");

    o = run({"check", "--endpoint", planted.endpoint(), "--map", map, "--json"});
    EXPECT_EQ(o.code, 1);
    EXPECT_NE(o.out.find("{\"kind\":\"type\",\"name\":\"M2Int8Value0\",\"result\":\"missing\",\"findings\":["
                         "\"BadNodeIdUnknown (ns=1;s=Nowhere)\"]}"),
              std::string::npos)
        << o.out;
    EXPECT_NE(o.out.find("\"checked\":1,\"ok\":0,\"mismatch\":0,\"missing\":1"), std::string::npos) << o.out;
}

/// A log4cplus configuration that sends "orsa" at the level and above to the file, which it empties.
std::string fileLogConfig(const std::string& name, const std::string& level, const std::string& file) {
    std::remove(file.c_str());
    return writeFile(name, "log4cplus.logger.orsa=" + level +
                               ", F\nlog4cplus.appender.F=log4cplus::FileAppender\nlog4cplus.appender.F.File=" + file +
                               "\nlog4cplus.appender.F.layout=log4cplus::SimpleLayout\n");
}

TEST(MiddlewareLogging, without_a_set_up_warnings_and_errors_go_to_stderr_in_one_line_format) {
    const std::regex line(R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} (WARN |ERROR) orsa\.duvo\.opcua\.[a-z]+: .+)");
    const auto probe = [](const std::vector<std::string>& env) { return Program(LOGGING_PROBE, {}, env).finish(); };

    Outcome o = probe({});
    EXPECT_EQ(o.code, 0) << o.err;
    EXPECT_EQ(o.err.find("log4cplus:ERROR"), std::string::npos) << o.err;
    ASSERT_EQ(lines(o.err).size(), 1u) << o.err;
    EXPECT_TRUE(std::regex_match(lines(o.err)[0], line)) << o.err;
    EXPECT_NE(o.err.find("ERROR orsa.duvo.opcua.subscriber: Subscriber already closed"), std::string::npos) << o.err;

    // A file named by DUVO_LOG_CONFIG replaces the default; one that cannot be read is said once.
    const std::string logFile = ::testing::TempDir() + "probe.log";
    const std::string config = fileLogConfig("probe.properties", "ERROR", logFile);
    o = probe({"DUVO_LOG_CONFIG=" + config});
    EXPECT_EQ(o.err, "");
    EXPECT_EQ(vesk::duvo::pki::readFile(logFile), "ERROR - Subscriber already closed\n");

    o = probe({"DUVO_LOG_CONFIG=/nonexistent/duvo.properties"});
    ASSERT_EQ(lines(o.err).size(), 2u) << o.err;
    EXPECT_TRUE(std::regex_match(lines(o.err)[0], line)) << o.err;
    EXPECT_NE(lines(o.err)[0].find("WARN  orsa.duvo.opcua.internal: the log configuration /nonexistent/duvo.properties "
                                   "named by DUVO_LOG_CONFIG cannot be read"),
              std::string::npos)
        << o.err;

    // m2ctl --log-config: the middleware's TRACE lines where the file says.
    const std::string traceFile = ::testing::TempDir() + "m2ctl.log";
    const std::string trace = fileLogConfig("trace.properties", "TRACE", traceFile);
    o = run({"sub", "M2Int32Value0", "--endpoint", "opc.tcp://127.0.0.1:1", "--timeout", "100", "--log-config", trace});
    EXPECT_EQ(o.code, 1);
    const std::string traced = vesk::duvo::pki::readFile(traceFile);
    EXPECT_NE(traced.find("TRACE - Subscriber for opcua-ps://127.0.0.1:1#ns=1;s=M2Int32Value0 created"),
              std::string::npos)
        << traced;
}

TEST(SimPrograms, serve_after_their_ready_line_until_sigterm_or_sigint_and_refuse_an_unknown_option) {
    const struct {
        const char* program;
        std::vector<std::string> args;
        int sig;
    } runs[] = {{M2CTL_PROGRAM, {"sim", "--port", "0"}, SIGTERM},
                {M2_SIM_PROGRAM, {"--port", "0"}, SIGTERM},
                {M2_SIM_PROGRAM, {"--port", "0"}, SIGINT}};
    const std::regex ready(R"(ready (opc\.tcp://127\.0\.0\.1:[1-9][0-9]*))");
    for (const auto& r : runs) {
        SCOPED_TRACE(std::string(r.program) + " signal " + std::to_string(r.sig));
        Program sim(r.program, r.args);
        const std::string line = sim.readLine();
        std::smatch endpoint;
        ASSERT_TRUE(std::regex_match(line, endpoint, ready)) << line;
        const Outcome o = run({"call", "WhRpcSetpower", "true", "--endpoint", endpoint[1].str()});
        EXPECT_EQ(o.code, 0) << o.err;
        sim.signal(r.sig);
        const Outcome end = sim.finish(10s);
        EXPECT_EQ(end.code, 0);
        EXPECT_EQ(end.out, ""); // nothing more on stdout
    }
    const Outcome refused = Program(M2_SIM_PROGRAM, {"--no-such-option"}).finish(10s);
    EXPECT_EQ(refused.code, 2);
    EXPECT_EQ(refused.out, "");
}

TEST(M2ctlSecurity, an_untrusted_server_or_a_refused_user_is_one_line_and_no_password_is_shown) {
    const auto& pki = duvo::test::securePki();
    vesk::duvo::sim::Simulator server(pki.serverOptions(vesk::duvo::sim::Options::Security::Secure));
    server.start();
    const std::string dir = pki.freshClientDir("m2ctl");
    const std::vector<std::string> secure = {
        "--endpoint", server.endpoint(), "--security-mode", "SignAndEncrypt", "--pki",
        dir,          "--user",          "operator",        "--timeout",      "1500"};
    const auto with = [&](std::vector<std::string> args, std::vector<std::string> more = {}) {
        args.insert(args.end(), secure.begin(), secure.end());
        args.insert(args.end(), more.begin(), more.end());
        return args;
    };
    const std::vector<std::string> password = {std::string("DUVO_OPCUA_PASSWORD=") + pki.password};
    const std::vector<std::string> wrong = {"DUVO_OPCUA_PASSWORD=wrong"};

    Outcome o = run(with({"pub", "M2Int32Value0", "7"}), password);
    EXPECT_EQ(o.code, 1);
    expectOneErrorLine(o, "is not trusted");
    EXPECT_NE(o.err.find("move it to " + dir + "/trusted/"), std::string::npos) << o.err;

    o = run(with({"pub", "M2Int32Value0", "7"}, {"--trust-server"}), password);
    EXPECT_EQ(o.code, 0) << o.err;
    EXPECT_NE(o.err.find(vesk::duvo::pki::thumbprint(server.certificate())), std::string::npos) << o.err;
    o = run(with({"check", "M2Int32Value0", "PsRpcSetpower"}), password);
    EXPECT_EQ(o.code, 0) << o.out << o.err;
    expectOneErrorLine(run(with({"check", "M2Int32Value0"}), wrong), "refused the user \"operator\"");

    o = run(with({"call", "PsRpcSetpower", "true"}), wrong);
    EXPECT_EQ(o.code, 1);
    expectOneErrorLine(o, "refused the user \"operator\"");
    o = run(with({"tour"}, {"--verbose"}), password);
    EXPECT_EQ(o.code, 0) << o.err;
    EXPECT_EQ((o.out + o.err).find(pki.password), std::string::npos);
}

} // namespace
