#pragma once
// open62541's messages on stderr, so that stdout carries only what the program prints.
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include <open62541/plugin/log.h>

namespace vesk::duvo::sim::detail {

inline const char* levelName(UA_LogLevel level) {
    switch (level) {
    case UA_LOGLEVEL_TRACE:
        return "trace";
    case UA_LOGLEVEL_DEBUG:
        return "debug";
    case UA_LOGLEVEL_INFO:
        return "info";
    case UA_LOGLEVEL_WARNING:
        return "warn";
    case UA_LOGLEVEL_ERROR:
        return "error";
    default:
        return "fatal";
    }
}

inline void logToStderr(void* context, UA_LogLevel level, UA_LogCategory, const char* msg, va_list args) {
    if (level < static_cast<UA_LogLevel>(reinterpret_cast<std::intptr_t>(context))) return;
    // Port 0 asks for a free port; the stack's warning that it picks one says nothing new.
    if (level == UA_LOGLEVEL_WARNING && std::strncmp(msg, "Dynamic port assignment", 23) == 0) return;
    char line[1024];
    std::vsnprintf(line, sizeof line, msg, args);
    // One call per line keeps lines from different threads apart.
    std::fprintf(stderr, "m2-sim %s: %s\n", levelName(level), line);
}

inline void deleteLogger(UA_Logger* logger) { delete logger; }

/// A logger for a server config, which frees it with the config.
inline UA_Logger* newStderrLogger(UA_LogLevel minimum) {
    return new UA_Logger{&logToStderr, reinterpret_cast<void*>(static_cast<std::intptr_t>(minimum)), &deleteLogger};
}

} // namespace vesk::duvo::sim::detail
