#pragma once

#include <QString>

namespace orvane {

// Why capture or recording failed, with the sentence shown to the user. Plain value.
struct CaptureError {
    enum class Kind {
        writerFailed,          // the movie writer's message is in `message`
        cameraUnavailable,
        microphoneUnavailable,
    };

    Kind kind = Kind::cameraUnavailable;
    QString message;

    static CaptureError writerFailed(QString message) { return {Kind::writerFailed, std::move(message)}; }
    static CaptureError cameraUnavailable() { return {Kind::cameraUnavailable, {}}; }
    static CaptureError microphoneUnavailable() { return {Kind::microphoneUnavailable, {}}; }

    QString description() const;

    friend bool operator==(const CaptureError&, const CaptureError&) = default;
};

} // namespace orvane
