#pragma once

#include <QLoggingCategory>

// The application model's log lines ("Network changed: ...", "Couldn't write cue log: ...").
Q_DECLARE_LOGGING_CATEGORY(lcApp)
