#pragma once
// The middleware's logging when the application has set up none.
#include <map>
#include <string>

namespace vesk::duvo::opcua::detail {

/// Once per process, before the first logger is used: when log4cplus has no appender yet,
/// applies the properties file named by "opc.logConfig" (else by DUVO_LOG_CONFIG), or else
/// sends WARN and above of the "orsa" loggers to stderr, one line each. An application that
/// configured log4cplus itself is left alone.
void setUpLogging(const std::map<std::string, std::string>& properties);

} // namespace vesk::duvo::opcua::detail
