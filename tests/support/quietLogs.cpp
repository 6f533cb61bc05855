// Entities log every refusal at ERROR; the tests check the exceptions themselves, so log
// lines go nowhere (tests that check a log line add their own appender to that logger).
#include <log4cplus/logger.h>
#include <log4cplus/nullappender.h>

namespace {
const bool quiet = [] {
    log4cplus::Logger::getRoot().addAppender(log4cplus::SharedAppenderPtr(new log4cplus::NullAppender()));
    return true;
}();
} // namespace
