#pragma once

#include "base/Checks.h"

#include <QObject>

#include <functional>
#include <optional>

namespace orvane {

// Derives one configuration value and applies it to its component: once at start, then once
// each time a watched signal brings a value that differs from the last one applied; an equal
// value is never applied again. Main thread only.
template <class Value> class ConfigurationWatcher {
public:
    ConfigurationWatcher(std::function<Value()> derive, std::function<void(const Value&)> apply)
        : derive_(std::move(derive))
        , apply_(std::move(apply))
    {
    }
    ConfigurationWatcher(const ConfigurationWatcher&) = delete;
    ConfigurationWatcher& operator=(const ConfigurationWatcher&) = delete;

    // Re-derives the value whenever `signal` of `sender` fires, while `context` lives.
    template <class Sender, class Signal>
    void watch(const Sender* sender, Signal signal, QObject* context)
    {
        QObject::connect(sender, signal, context, [this] { check(); });
    }

    // The first apply; later calls only check.
    void start()
    {
        started_ = true;
        check();
    }

    // Derives the value and applies it when it changed.
    void check()
    {
        if (!started_ || checking_)
            return;
        checking_ = true;
        // An apply may change what the value is made from; derive again until it settles.
        for (int round = 0; round < 4; ++round) {
            Value next = derive_();
            if (applied_ && *applied_ == next)
                break;
            applied_ = std::move(next);
            ++applyCount_;
            apply_(*applied_);
        }
        checking_ = false;
    }

    const std::optional<Value>& applied() const { return applied_; }
    int applyCount() const { return applyCount_; }

private:
    std::function<Value()> derive_;
    std::function<void(const Value&)> apply_;
    std::optional<Value> applied_;
    int applyCount_ = 0;
    bool started_ = false;
    bool checking_ = false;
};

} // namespace orvane
