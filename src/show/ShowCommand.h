#pragma once

#include <QString>

#include <utility>

namespace orvane {

// What a "/tavrin/" message asks the application to do. A plain value; any thread.
struct ShowCommand {
    enum class Kind {
        marker, // add a marker with `text` to the cue log
        layout, // switch to the saved layout named `text`
        startRecording,
        stopRecording,
        toggleRecording,
    };

    Kind kind = Kind::toggleRecording;
    QString text; // the marker's text or the layout's name; empty for the others

    static ShowCommand marker(QString text) { return {Kind::marker, std::move(text)}; }
    static ShowCommand layout(QString name) { return {Kind::layout, std::move(name)}; }
    static ShowCommand startRecording() { return {Kind::startRecording, {}}; }
    static ShowCommand stopRecording() { return {Kind::stopRecording, {}}; }
    static ShowCommand toggleRecording() { return {Kind::toggleRecording, {}}; }

    friend bool operator==(const ShowCommand&, const ShowCommand&) = default;
};

} // namespace orvane
