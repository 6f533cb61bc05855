// The subscriber logs refusals at ERROR; the tests check the exceptions and keep standard
// error for the callback reports they compare.
#include <log4cplus/logger.h>
#include <log4cplus/nullappender.h>

namespace {
const bool quiet = [] {
    log4cplus::Logger::getRoot().addAppender(log4cplus::SharedAppenderPtr(new log4cplus::NullAppender()));
    return true;
}();
} // namespace
