#include "logging.hpp"

#include <cstdlib>
#include <fstream>
#include <mutex>

#include <log4cplus/configurator.h>
#include <log4cplus/consoleappender.h>
#include <log4cplus/initializer.h>
#include <log4cplus/layout.h>
#include <log4cplus/logger.h>
#include <log4cplus/loggingmacros.h>

namespace vesk::duvo::opcua::detail {

namespace {

constexpr const char* linePattern = "%D{%Y-%m-%d %H:%M:%S.%q} %-5p %c: %m%n";

/// Whether any logger, the root included, has an appender: then the application chose.
bool configured() {
    if (!log4cplus::Logger::getRoot().getAllAppenders().empty()) return true;
    for (auto& logger : log4cplus::Logger::getCurrentLoggers())
        if (!logger.getAllAppenders().empty()) return true;
    return false;
}

void logToStderr() {
    log4cplus::SharedAppenderPtr console(new log4cplus::ConsoleAppender(true, true));
    console->setName(LOG4CPLUS_TEXT("duvo-stderr"));
    console->setLayout(std::make_unique<log4cplus::PatternLayout>(LOG4CPLUS_TEXT(linePattern)));
    auto orsa = log4cplus::Logger::getInstance(LOG4CPLUS_TEXT("orsa"));
    orsa.addAppender(console);
    orsa.setLogLevel(log4cplus::WARN_LOG_LEVEL);
}

void setUp(const std::map<std::string, std::string>& properties) {
    log4cplus::initialize();
    if (configured()) return;
    std::string file, from;
    if (const auto it = properties.find("opc.logConfig"); it != properties.end() && !it->second.empty()) {
        file = it->second;
        from = "the property opc.logConfig";
    } else if (const char* env = std::getenv("DUVO_LOG_CONFIG"); env && *env) {
        file = env;
        from = "DUVO_LOG_CONFIG";
    }
    if (!file.empty()) {
        if (std::ifstream(file).good()) {
            log4cplus::PropertyConfigurator::doConfigure(LOG4CPLUS_STRING_TO_TSTRING(file));
            if (configured()) return;
        }
        // A file that cannot be read, or that sets up no appender, leaves the default in place.
        logToStderr();
        LOG4CPLUS_WARN(log4cplus::Logger::getInstance(LOG4CPLUS_TEXT("orsa.duvo.opcua.internal")),
                       LOG4CPLUS_STRING_TO_TSTRING("the log configuration " + file + " named by " + from +
                                                   " cannot be read or names no appender; logging WARN and "
                                                   "above to stderr"));
        return;
    }
    logToStderr();
}

} // namespace

void setUpLogging(const std::map<std::string, std::string>& properties) {
    static std::once_flag once;
    std::call_once(once, [&] { setUp(properties); });
}

} // namespace vesk::duvo::opcua::detail
