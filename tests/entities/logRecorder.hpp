#pragma once
// Records what reaches one log4cplus logger while a test runs. Entities log from the client's
// threads, so the record has a lock of its own.
#include <chrono>
#include <cstddef>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <log4cplus/appender.h>
#include <log4cplus/logger.h>
#include <log4cplus/loglevel.h>
#include <log4cplus/spi/loggingevent.h>

namespace duvo::test {

struct LogLine {
    log4cplus::LogLevel level;
    std::string message;
};

class LogRecorder {
public:
    /// Captures the logger's events; they no longer reach the root logger meanwhile.
    explicit LogRecorder(const std::string& loggerName)
        : logger_(log4cplus::Logger::getInstance(loggerName)),
          additive_(logger_.getAdditivity()),
          appender_(new Appender) {
        logger_.addAppender(appender_);
        logger_.setAdditivity(false);
    }
    ~LogRecorder() {
        logger_.removeAppender(appender_);
        logger_.setAdditivity(additive_);
    }
    LogRecorder(const LogRecorder&) = delete;
    LogRecorder& operator=(const LogRecorder&) = delete;

    std::vector<LogLine> lines() const { return appender().lines(); }

    /// The lines whose message contains text.
    std::vector<LogLine> containing(const std::string& text) const {
        std::vector<LogLine> found;
        for (auto& line : lines())
            if (line.message.find(text) != std::string::npos) found.push_back(line);
        return found;
    }

    /// Waits until at least count lines contain text; false when the time is up.
    bool waitFor(const std::string& text, std::size_t count = 1,
                 std::chrono::milliseconds within = std::chrono::milliseconds(5000)) const {
        const auto end = std::chrono::steady_clock::now() + within;
        while (containing(text).size() < count) {
            if (std::chrono::steady_clock::now() >= end) return false;
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        return true;
    }

private:
    class Appender : public log4cplus::Appender {
    public:
        ~Appender() override { destructorImpl(); }
        void close() override {}
        std::vector<LogLine> lines() const {
            std::lock_guard<std::mutex> lock(mutex_);
            return lines_;
        }

    protected:
        void append(const log4cplus::spi::InternalLoggingEvent& event) override {
            std::lock_guard<std::mutex> lock(mutex_);
            lines_.push_back({event.getLogLevel(), event.getMessage()});
        }

    private:
        mutable std::mutex mutex_;
        std::vector<LogLine> lines_;
    };

    const Appender& appender() const { return static_cast<const Appender&>(*appender_); }

    log4cplus::Logger logger_;
    bool additive_;
    log4cplus::SharedAppenderPtr appender_;
};

} // namespace duvo::test
