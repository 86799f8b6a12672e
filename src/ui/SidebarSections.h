#pragma once

#include "eos/DiscoveredConsole.h"
#include "ui/SidebarSection.h"

#include <QList>
#include <QPointer>

#include <optional>

class QListWidget;
class QPushButton;
class QVBoxLayout;

namespace orvane {

class AppModel;

// The Eos console link: its status and advice, the console it follows, the consoles found on
// the networks (choosing one follows it), "Search Again" and "Forget".
class EosSection : public SidebarSection {
    Q_OBJECT
public:
    explicit EosSection(AppModel& model, QWidget* parent = nullptr);

private:
    void refresh();
    void refreshConsoles();
    void forgetFollowed();
    std::optional<DiscoveredConsole> followed() const;

    AppModel& model_;
    QLabel* status_ = nullptr;
    QLabel* advice_ = nullptr;
    QLabel* console_ = nullptr;
    QListWidget* consoles_ = nullptr;
    QPushButton* forget_ = nullptr;
};

// The QLab link: its status, advice and the workspace it joined.
class QLabSection : public SidebarSection {
    Q_OBJECT
public:
    explicit QLabSection(AppModel& model, QWidget* parent = nullptr);

private:
    void refresh();

    AppModel& model_;
    QLabel* status_ = nullptr;
    QLabel* advice_ = nullptr;
    QLabel* workspace_ = nullptr;
};

// Orvane's own OSC listener: what it is doing, and who sent last and when.
class ListenerSection : public SidebarSection {
    Q_OBJECT
public:
    explicit ListenerSection(AppModel& model, QWidget* parent = nullptr);

private:
    void refresh();
    void heard();

    AppModel& model_;
    QLabel* state_ = nullptr;
    QLabel* sender_ = nullptr;
    QLabel* lastMessage_ = nullptr;
};

// The web viewer and the NDI source, each with its own switch.
class OutputsSection : public SidebarSection {
    Q_OBJECT
public:
    explicit OutputsSection(AppModel& model, QWidget* parent = nullptr);

private:
    void refresh();

    AppModel& model_;
    QLabel* webState_ = nullptr;
    QLabel* webViewers_ = nullptr;
    QLabel* webAddresses_ = nullptr;
    QLabel* ndiStatus_ = nullptr;
    QLabel* ndiReceivers_ = nullptr;
};

// The main camera and the microphone, each extra camera, and "Choose Cameras…".
class DevicesSection : public SidebarSection {
    Q_OBJECT
public:
    explicit DevicesSection(AppModel& model, QWidget* parent = nullptr);

Q_SIGNALS:
    void settingsRequested();

private:
    void refresh();
    void rebuildExtras();

    AppModel& model_;
    QLabel* camera_ = nullptr;
    QLabel* microphone_ = nullptr;
    QVBoxLayout* extras_ = nullptr;
    QList<QMetaObject::Connection> feedConnections_;
};

} // namespace orvane
