#pragma once

#include <QString>

namespace orvane {

// The state of one camera feed, main or extra, as its area in the window shows it. Plain value.
struct FeedState {
    enum class Kind {
        disconnected, // `text`: the missing camera's name
        failed,       // `text`: why the capture could not start
        starting,
        live,
        noAccess,
        noCameras,
        unassigned,
    };

    Kind kind = Kind::unassigned;
    QString text;

    static FeedState disconnected(QString name) { return {Kind::disconnected, std::move(name)}; }
    static FeedState failed(QString message) { return {Kind::failed, std::move(message)}; }
    static FeedState of(Kind kind) { return {kind, {}}; }

    friend bool operator==(const FeedState&, const FeedState&) = default;
};

} // namespace orvane
