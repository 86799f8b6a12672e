#pragma once

#include "settings/AppSettings.h"

#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QMetaProperty>
#include <QTemporaryDir>
#include <QVariant>

// Helpers shared by the settings tests: private stores in a temporary folder, and walks over
// every property of AppSettings through Qt's meta-object.
namespace orvane::testing {

// A store file and support folder inside `dir`; `storeText`, when given, is the file's text.
inline AppSettings::Location privateLocation(const QTemporaryDir& dir,
                                             const QByteArray& storeText = {})
{
    AppSettings::Location location{dir.filePath("config/Orvane/Orvane.json"),
                                   dir.filePath("data/Orvane")};
    if (!storeText.isNull()) {
        QDir().mkpath(dir.filePath("config/Orvane"));
        QFile file(location.storeFile);
        if (!file.open(QIODevice::WriteOnly) || file.write(storeText) != storeText.size())
            qFatal("couldn't write the test store");
    }
    return location;
}

// The store file as a JSON object (empty when it is missing or not an object).
inline QJsonObject storedObject(const AppSettings::Location& location)
{
    QFile file(location.storeFile);
    if (!file.open(QIODevice::ReadOnly))
        return {};
    return QJsonDocument::fromJson(file.readAll()).object();
}

template <class T> bool holdsType(const QVariant& value)
{
    return value.metaType() == QMetaType::fromType<T>();
}

// The properties that are settings, in declaration order.
inline QList<QMetaProperty> settingProperties()
{
    QList<QMetaProperty> properties;
    const QMetaObject& meta = AppSettings::staticMetaObject;
    for (int at = meta.propertyOffset(); at < meta.propertyCount(); ++at)
        properties.append(meta.property(at));
    return properties;
}

} // namespace orvane::testing
