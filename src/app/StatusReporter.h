#pragma once

#include <QObject>
#include <QString>
#include <QStringList>

namespace orvane {

class AppModel;
struct FeedState;

// What a camera's state says, in the words of both the window and headless mode
// ("No camera is chosen.", "Booth Cam isn't connected.").
QString feedStateSentence(const FeedState& state);

// Turns what happens in the application model into sentences, one a line, as headless mode
// prints them: the camera's state, recordings started and saved with the frames they lost,
// rows of the cue log, the listener and the links, and every errorMessage. Main thread only.
class StatusReporter : public QObject {
    Q_OBJECT

public:
    explicit StatusReporter(AppModel& model, QObject* parent = nullptr);

Q_SIGNALS:
    void line(const QString& text);

private:
    void say(const QString& text);
    void reportWeb();
    void sayUnlessRepeated(const QString& text, QStringList& recent);

    AppModel& model_;
    int reportedRows_ = 0;
    int lostBeforeRecording_ = 0; // the main camera's lost frames when recording started
    QString lastListener_;
    QStringList lastEos_;
    QStringList lastQLab_;
    QString lastWeb_;
};

} // namespace orvane
