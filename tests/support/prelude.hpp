#pragma once
// What the entity tests share: the usual includes and names, and waits for what a subscriber
// or a server receives.
#include <atomic>
#include <chrono>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <log4cplus/appender.h>
#include <log4cplus/logger.h>
#include <log4cplus/spi/loggingevent.h>
#include <open62541/types.h>

#include <m2Types/catalogue.hpp>
#include <m2Types/m2Types.hpp>
#include <vesk/duvo/opcua/opcuaDuvo.hpp>
#include <vesk/duvo/rr/qos.hpp>
#include <vesk/duvo/sim/faultProxy.hpp>

#include "support/sampleValues.hpp"
#include "support/waits.hpp"

namespace duvo::test {

using vesk::duvo::opcua::detail::OpcUaDuvo;
using vesk::duvo::ps::DataEvent;
using vesk::duvo::ps::DataEventFilter;
using vesk::duvo::ps::InstanceState;
using PsQoS = std::vector<std::shared_ptr<vesk::duvo::ps::qos::QoS>>;
using RrQoS = std::vector<std::shared_ptr<vesk::duvo::rr::qos::QoS>>;
using Properties = vesk::duvo::Duvo::Properties;
using AllTypes = m2Types::rebind_t<::testing::Types, m2Types::DataTypes>;
using T = m2Types::M2Int32Value0;

constexpr const char* subscriberLog = "orsa.duvo.opcua.subscriber";
constexpr const char* publisherLog = "orsa.duvo.opcua.publisher";
const Properties monitoredProps{{"opc.ps.pollingPeriodMs", "0"}};
inline Properties polledProps(int periodMs) {
    return {{"opc.ps.usePollSubscriber", "true"}, {"opc.ps.pollingPeriodMs", std::to_string(periodMs)}};
}
inline RrQoS replyTime(std::chrono::milliseconds ms) { return {std::make_shared<vesk::duvo::rr::qos::ReplyTime>(ms)}; }

/// How long a publish, a call or a delivery may take: the first of an entity waits for its
/// session, which node-opcua sets up in seconds on a loaded machine.
constexpr std::chrono::milliseconds kWait = 10000ms;

/// Reads from the queue until a sample with the value arrives.
template <class Type>
bool receives(vesk::duvo::ps::Subscriber<Type>& subscriber, const typename Type::value_type& value,
              std::chrono::milliseconds within = kWait) {
    return eventually(
        [&] {
            for (const auto& sample : subscriber.read(0))
                if (sample && sample->getValue0() == value) return true;
            return false;
        },
        within);
}

template <class Type>
bool mostRecentIs(vesk::duvo::ps::MrvSubscriber<Type>& subscriber, const typename Type::value_type& value,
                  std::chrono::milliseconds within = kWait) {
    return eventually(
        [&] {
            const auto samples = subscriber.readMostRecent(0ms);
            return samples.size() == 1 && samples[0]->getValue0() == value;
        },
        within);
}

struct LogLine {
    log4cplus::LogLevel level;
    std::string message;
};

/// Records what reaches one logger while it lives (and keeps it from the root logger). Entities
/// log from the client's threads, so the record has a lock of its own.
class LogRecorder {
public:
    explicit LogRecorder(const std::string& loggerName)
        : logger_(log4cplus::Logger::getInstance(loggerName)), additive_(logger_.getAdditivity()) {
        logger_.addAppender(held_);
        logger_.setAdditivity(false);
    }
    ~LogRecorder() {
        logger_.removeAppender(held_);
        logger_.setAdditivity(additive_);
    }
    std::vector<LogLine> lines() const {
        std::lock_guard<std::mutex> lock(appender_->mutex);
        return appender_->lines;
    }
    std::vector<LogLine> containing(const std::string& text) const {
        std::vector<LogLine> found;
        for (auto& line : lines())
            if (line.message.find(text) != std::string::npos) found.push_back(line);
        return found;
    }
    /// Waits until at least count lines contain text.
    bool waitFor(const std::string& text, std::size_t count = 1, std::chrono::milliseconds within = 5000ms) const {
        return eventually([&] { return containing(text).size() >= count; }, within);
    }

private:
    struct Appender : log4cplus::Appender {
        ~Appender() override { destructorImpl(); }
        void close() override {}
        void append(const log4cplus::spi::InternalLoggingEvent& event) override {
            std::lock_guard<std::mutex> lock(mutex);
            lines.push_back({event.getLogLevel(), event.getMessage()});
        }
        std::mutex mutex;
        std::vector<LogLine> lines;
    };
    log4cplus::Logger logger_;
    bool additive_;
    Appender* appender_ = new Appender;
    log4cplus::SharedAppenderPtr held_{appender_};
};

/// The client's failure texts, each followed by ": " and details.
inline bool isClientFailure(const std::string& text) {
    for (const char* prefix : {"timeout: ", "not connected: ", "connection lost: ", "client shut down: "})
        if (text.rfind(prefix, 0) == 0) return true;
    return false;
}

/// What a publish that waits may say: its own timeout (also when the client gave the write up
/// unsent), or why the client lost it after sending it.
inline bool isPublishFailure(const std::string& text) {
    return text == "timeout when publishing" || text.rfind("connection lost: ", 0) == 0 ||
           text.rfind("client shut down: ", 0) == 0;
}

/// Runs `step` over and over on a thread of its own until destroyed.
class Loop {
public:
    template <class Step>
    explicit Loop(Step step)
        : thread_([this, step]() mutable {
              while (!stop_.load()) step();
          }) {}
    ~Loop() {
        stop_ = true;
        thread_.join();
    }

private:
    std::atomic<bool> stop_{false};
    std::thread thread_;
};

} // namespace duvo::test
