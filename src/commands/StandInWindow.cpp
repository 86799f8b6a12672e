#include "commands/StandInWindow.h"

#include "app/AppModel.h"
#include "app/StatusReporter.h"
#include "capture/Frame.h"
#include "settings/AppSettings.h"

#include <QGuiApplication>
#include <QPainter>
#include <QRasterWindow>
#include <QTimer>

#include <cstdio>

namespace orvane {

namespace {

// The main camera's newest picture, scaled to fit, with the last sentence under it.
class PreviewWindow : public QRasterWindow {
public:
    explicit PreviewWindow(AppModel& model)
        : model_(model)
    {
        setTitle(QStringLiteral("Orvane"));
        resize(960, 600);
        refresh_.setInterval(33);
        QObject::connect(&refresh_, &QTimer::timeout, this, [this] { update(); });
        refresh_.start();
    }
    void setStatus(const QString& text)
    {
        status_ = text;
        update();
    }

protected:
    void paintEvent(QPaintEvent*) override
    {
        QPainter painter(this);
        painter.fillRect(QRect(QPoint(0, 0), size()), Qt::black);
        const QRect picture = QRect(QPoint(0, 0), size()).adjusted(0, 0, 0, -32);
        if (const auto frame = model_.engine().latestFrame()) {
            // Only the pixels shown are converted from YUV, at the size they are shown.
            const QSize fitted =
                QSize(frame->width, frame->height).scaled(picture.size(), Qt::KeepAspectRatio);
            const QRect target(picture.center() - QPoint(fitted.width() / 2, fitted.height() / 2),
                               fitted);
            if (!fitted.isEmpty())
                painter.drawImage(target.topLeft(), yuv::toRgb(frame->planes(), fitted));
        }
        painter.setPen(Qt::white);
        QString text = status_;
        if (model_.isRecording())
            text = QStringLiteral("● REC   ") + text;
        painter.drawText(QRect(QPoint(0, 0), size()).adjusted(12, 0, -12, -8),
                         Qt::AlignBottom | Qt::AlignLeft, text);
    }

private:
    AppModel& model_;
    QTimer refresh_;
    QString status_;
};

} // namespace

int runStandInWindow(const RunOptions& options)
{
    std::unique_ptr<AppSettings> settings;
    if (options.settingsFile) {
        auto location = AppSettings::standardLocation();
        location.storeFile = *options.settingsFile;
        settings = std::make_unique<AppSettings>(location);
    } else {
        settings = AppSettings::openStandard();
    }
    AppModel model(std::move(settings), options);
    StatusReporter reporter(model);
    PreviewWindow window(model);
    QObject::connect(&reporter, &StatusReporter::line, &reporter, [&window](const QString& text) {
        std::printf("%s\n", qPrintable(text));
        std::fflush(stdout);
        window.setStatus(text);
    });
    window.show();
    model.start();
    // Closing the window finishes the recording first.
    QGuiApplication::setQuitOnLastWindowClosed(false);
    QObject::connect(qApp, &QGuiApplication::lastWindowClosed, &model, [&model] {
        model.stopRecording([&model] {
            const auto check = std::make_shared<std::function<void()>>();
            *check = [&model, check] {
                if (model.recording().finishingCount() > 0)
                    return QTimer::singleShot(50, *check);
                QCoreApplication::quit();
            };
            (*check)();
        });
    });
    return QGuiApplication::exec();
}

} // namespace orvane
