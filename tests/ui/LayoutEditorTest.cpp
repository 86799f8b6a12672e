// The layout editor over a real AppModel, its picture shown at about half the frame's size:
// dragged panels land where they were let go, inside the frame; presets are kept through the
// bar, a name already taken only after asking, and the list follows the active preset.

#include "ui/LayoutEditor.h"
#include "app/AppModel.h"
#include "ui/LayoutCanvas.h"

#include <QComboBox>
#include <QLineEdit>
#include <QPushButton>
#include <QTemporaryDir>
#include <QTest>

using namespace orvane;
Q_DECLARE_METATYPE(orvane::OverlayWidget)

class LayoutEditorTest : public QObject {
    Q_OBJECT
    QTemporaryDir dir_;
    std::unique_ptr<AppModel> model_;
    std::unique_ptr<LayoutEditor> editor_;
    // The shown one of that name (closed dialogs linger until deleted).
    template <class T> T* shown(const char* name)
    {
        for (T* window : editor_->findChildren<T*>(name))
            if (window->isVisible())
                return window;
        return nullptr;
    }

private Q_SLOTS:
    void init()
    {
        editor_.reset();
        model_.reset();
        QFile::remove(dir_.filePath("Orvane.json"));
        // Never started, so nothing reaches the network.
        model_ = std::make_unique<AppModel>(std::make_unique<AppSettings>(
            AppSettings::Location{dir_.filePath("Orvane.json"), dir_.filePath("support")}));
        editor_ = std::make_unique<LayoutEditor>(*model_);
        editor_->resize(1000, 640); // no camera: a 1920 x 1080 frame
        editor_->show();
        QVERIFY(QTest::qWaitForWindowExposed(editor_.get()));
    }

    void dragsPanels_data()
    {
        // Where the panel's anchor is dragged (frame pixels) and the placement that results.
        QTest::addColumn<OverlayWidget>("widget");
        QTest::addColumn<QPointF>("target");
        QTest::addColumn<QPointF>("placement");
        QTest::newRow("fields") << OverlayWidget::fields << QPointF(960, 540) << QPointF(0.5, 0.5);
        QTest::newRow("status") << OverlayWidget::status << QPointF(700, 300)
                                << QPointF(700.0 / 1920, 780.0 / 1080);
        QTest::newRow("QLab past the left edge")
            << OverlayWidget::qlab << QPointF(-400, 540) << QPointF(0, 0.5);
        QTest::newRow("watermark past the top right corner")
            << OverlayWidget::watermark << QPointF(2500, -300) << QPointF(1, 1);
    }

    void dragsPanels()
    {
        QFETCH(OverlayWidget, widget);
        QFETCH(QPointF, target);
        QFETCH(QPointF, placement);
        AppSettings& settings = model_->settings();
        LayoutCanvas& canvas = editor_->canvas();
        const QRectF picture = canvas.pictureRect();
        const double scale = picture.width() / 1920;
        QVERIFY(scale > 0.3 && scale < 0.6);
        const QRectF before = *canvas.panelRect(widget);
        const WidgetPlacement anchor = WidgetPlacement::defaultFor(widget);
        const QPointF anchorAt(before.left() + anchor.anchorX * before.width(),
                               before.bottom() - anchor.anchorY * before.height());
        const QPoint grab = before.center().toPoint();
        const QPoint to = grab + (picture.topLeft() + target * scale - anchorAt).toPoint();
        QTest::mousePress(&canvas, Qt::LeftButton, {}, grab);
        QTest::mouseMove(&canvas, to);
        QVERIFY(canvas.panelRect(widget) != before); // shown while dragging, written when let go
        QCOMPARE(settings.overlayLayout(), OverlayLayout::defaultLayout());
        QTest::mouseRelease(&canvas, Qt::LeftButton, {}, to);
        const WidgetPlacement placed = settings.overlayLayout().placement(widget);
        QCOMPARE_LE(std::abs(placed.x - placement.x()), 1.0 / 1920); // one frame pixel
        QCOMPARE_LE(std::abs(placed.y - placement.y()), 1.0 / 1080);
        QVERIFY(picture.adjusted(-0.01, -0.01, 0.01, 0.01).contains(*canvas.panelRect(widget)));
        QTest::keyClick(&canvas, Qt::Key_Down, Qt::ShiftModifier); // ten frame pixels down
        QCOMPARE_LE(std::abs(settings.overlayLayout().placement(widget).y - placed.y + 10.0 / 1080),
                    1e-9);
        QTest::keyClick(&canvas, Qt::Key_Tab); // the keyboard chooses another panel
        QVERIFY(canvas.selectedWidget() && canvas.selectedWidget() != widget);
        QTest::keyClick(&canvas, Qt::Key_Backtab);
        QCOMPARE(canvas.selectedWidget(), widget);
        QTest::mouseClick(shown<QPushButton>("resetLayout"), Qt::LeftButton);
        QCOMPARE(settings.overlayLayout(), OverlayLayout::defaultLayout());
    }

    void keepsPresets()
    {
        AppSettings& settings = model_->settings();
        auto* list = editor_->findChild<QComboBox*>("layoutPresets");
        const auto click = [&](const char* button) {
            QTest::mouseClick(shown<QPushButton>(button), Qt::LeftButton);
        };
        const auto answer = [&](const QString& name) {
            auto* field = shown<QLineEdit>("presetName");
            field->clear();
            QTest::keyClicks(field, name);
            QTest::keyClick(field, Qt::Key_Return);
        };
        const auto names = [&] {
            QStringList names;
            std::ranges::transform(settings.layoutPresets(), std::back_inserter(names),
                                   &LayoutPreset::name);
            return names;
        };

        click("savePreset");
        answer("   ");
        QVERIFY(shown<QLineEdit>("presetName")); // blanks are no name
        answer(" Rehearsal ");
        QCOMPARE(list->currentText(), "Rehearsal");
        settings.setOverlayScale(1.5);
        QCOMPARE(list->currentText(), "Custom");
        click("savePreset");
        answer("rehearsal");
        QCOMPARE(settings.layoutPresets().at(0).look.scale, 1.0); // not before asking
        click("confirmName");
        QCOMPARE(names(), QStringList{"Rehearsal"});
        QCOMPARE(settings.layoutPresets().at(0).look.scale, 1.5);
        settings.setOverlayScale(1.0);
        click("savePreset");
        answer("Stream");
        QTest::keyClick(list, Qt::Key_Up); // choosing Rehearsal puts its look back
        QCOMPARE(settings.overlayScale(), 1.5);
        QCOMPARE(list->currentText(), "Rehearsal");
        click("renamePreset");
        answer("stream");
        QCOMPARE(names(), (QStringList{"Rehearsal", "Stream"}));
        click("confirmName");
        QCOMPARE(names(), (QStringList{"stream", "Stream"}));
        click("deletePreset");
        QCOMPARE(names(), QStringList{"Stream"});
        QCOMPARE(list->currentText(), "Custom");
    }
};

QTEST_MAIN(LayoutEditorTest)

#include "LayoutEditorTest.moc"
