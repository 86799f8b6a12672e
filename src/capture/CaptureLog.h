#pragma once

#include <QLoggingCategory>

// The capture library's log lines: "orvane.capture".
Q_DECLARE_LOGGING_CATEGORY(lcCapture)
