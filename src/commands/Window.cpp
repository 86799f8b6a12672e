#include "commands/Window.h"

#include "commands/CommandSupport.h"

#include "app/AppModel.h"
#include "app/StatusReporter.h"
#include "settings/AppSettings.h"
#include "ui/LayoutEditor.h"
#include "ui/MainWindow.h"
#include "ui/SettingsWindow.h"
#include "ui/ShowInspector.h"
#include "ui/Sidebar.h"
#include "ui/UpdatePrompt.h"

#include <QApplication>


namespace orvane {

int runWindow(const RunOptions& options)
{
    AppModel model(openSettings(options), options);
    // Scripts that start the window read the same lines as headless mode prints.
    StatusReporter reporter(model);
    QObject::connect(&reporter, &StatusReporter::line, &reporter, &printLine);

    MainWindow window(model);
    window.setLayoutEditor(new LayoutEditor(model));
    // One settings window, made when first asked for; asked again, it comes to the front at
    // the tab it was left on.
    SettingsWindow* settingsWindow = nullptr;
    const auto showSettings = [&](std::optional<SettingsWindow::Tab> tab) {
        if (!settingsWindow)
            settingsWindow = new SettingsWindow(model, &window);
        settingsWindow->showTab(tab.value_or(settingsWindow->currentTab()));
    };
    QObject::connect(&window, &MainWindow::settingsRequested, &window,
                     [showSettings] { showSettings(std::nullopt); });
    auto* sidebar = new Sidebar(model);
    window.setSidebar(sidebar);
    QObject::connect(sidebar, &Sidebar::settingsRequested, &window,
                     [showSettings] { showSettings(SettingsWindow::Tab::cameras); });
    window.setInspector(new ShowInspector(model));
    window.restoreWindowState();
    // Checks for a new release once a day while the setting allows, and when asked.
    auto* updates = new UpdatePrompt(model, &window);
    QObject::connect(&window, &MainWindow::checkForUpdatesRequested, updates,
                     &UpdatePrompt::checkForUpdates);
    // Other windows (settings, about) may stay open: the main window's closing, once the
    // recording is finished, is what ends Orvane.
    QApplication::setQuitOnLastWindowClosed(false);
    QObject::connect(&window, &MainWindow::closed, qApp, &QCoreApplication::quit,
                     Qt::QueuedConnection);
    // SIGINT and SIGTERM close the window as its close button does.
    onInterrupt(window, [&window] { window.close(); });
    window.show();
    model.start();
    return QApplication::exec();
}

} // namespace orvane
