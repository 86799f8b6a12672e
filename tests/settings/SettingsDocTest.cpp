#include "settings/AppSettings.h"

#include "SettingsTesting.h"

#include <QRegularExpression>
#include <QTest>

using namespace orvane;
using namespace orvane::testing;

namespace {

struct DocumentedKey {
    QString key;
    QString type;
    QString fallback;
};

// The rows of the key table of docs/settings.md, in order.
QList<DocumentedKey> documentedKeys()
{
    QFile file(QStringLiteral(ORVANE_TEST_DATA "/../../docs/settings.md"));
    if (!file.open(QIODevice::ReadOnly))
        qFatal("docs/settings.md is missing");
    static const QRegularExpression row(QStringLiteral(R"(^\| `(\w+)` \| ([^|]+) \| ([^|]+) \|)"));
    QList<DocumentedKey> keys;
    for (const QString& line : QString::fromUtf8(file.readAll()).split(u'\n')) {
        const auto match = row.match(line);
        if (match.hasMatch())
            keys.append(
                {match.captured(1), match.captured(2).trimmed(), match.captured(3).trimmed()});
    }
    return keys;
}

template <class T> bool holdsType(const QVariant& value)
{
    return value.metaType() == QMetaType::fromType<T>();
}

QString quoted(const QString& text)
{
    return u'"' + text + u'"';
}

// The type column for a property, and the JSON kind it must have in the file.
QString documentedType(const QVariant& value)
{
    if (holdsType<bool>(value))
        return QStringLiteral("Bool");
    if (holdsType<double>(value))
        return QStringLiteral("Double");
    if (holdsType<int>(value))
        return QStringLiteral("Int");
    if (holdsType<QString>(value))
        return QStringLiteral("String");
    if (holdsType<std::optional<QString>>(value))
        return QStringLiteral("String, optional");
    if (holdsType<OSCFraming>(value))
        return QStringLiteral("String: OSCFraming");
    if (holdsType<std::optional<NetworkKind>>(value))
        return QStringLiteral("String, optional: NetworkKind");
    if (holdsType<RecordingCodec>(value))
        return QStringLiteral("String: RecordingCodec");
    if (holdsType<QList<ExtraCamera>>(value))
        return QStringLiteral("JSON: array of ExtraCamera");
    if (holdsType<OverlayLayout>(value))
        return QStringLiteral("JSON: OverlayLayout");
    if (holdsType<QList<LayoutPreset>>(value))
        return QStringLiteral("JSON: array of LayoutPreset");
    if (holdsType<QList<WatchedAddress>>(value))
        return QStringLiteral("JSON: array of WatchedAddress");
    return QStringLiteral("unknown type ") + value.metaType().name();
}

// The default column for a value read from an empty store.
QString documentedValue(const QVariant& value)
{
    if (holdsType<bool>(value))
        return value.toBool() ? QStringLiteral("true") : QStringLiteral("false");
    if (holdsType<double>(value)) {
        const QString text = QString::number(value.toDouble(), 'g', 15);
        return text.contains(u'.') ? text : text + QStringLiteral(".0");
    }
    if (holdsType<int>(value))
        return QString::number(value.toInt());
    if (holdsType<QString>(value))
        return quoted(value.toString());
    if (holdsType<std::optional<QString>>(value)) {
        const auto text = value.value<std::optional<QString>>();
        return text ? quoted(*text) : QStringLiteral("none");
    }
    if (holdsType<OSCFraming>(value))
        return quoted(rawValue(value.value<OSCFraming>()));
    if (holdsType<std::optional<NetworkKind>>(value)) {
        const auto kind = value.value<std::optional<NetworkKind>>();
        return kind ? quoted(rawValue(*kind)) : QStringLiteral("none");
    }
    if (holdsType<RecordingCodec>(value))
        return quoted(rawValue(value.value<RecordingCodec>()));
    if (holdsType<QList<ExtraCamera>>(value))
        return value.value<QList<ExtraCamera>>().isEmpty() ? "empty" : "a list";
    if (holdsType<QList<LayoutPreset>>(value))
        return value.value<QList<LayoutPreset>>().isEmpty() ? "empty" : "a list";
    if (holdsType<QList<WatchedAddress>>(value))
        return value.value<QList<WatchedAddress>>().isEmpty() ? "empty" : "a list";
    if (holdsType<OverlayLayout>(value))
        return value.value<OverlayLayout>() == OverlayLayout::defaultLayout()
                   ? QStringLiteral("default layout")
                   : QStringLiteral("another layout");
    return QStringLiteral("unknown value");
}

bool storedAsDocumented(const QString& type, const QJsonValue& stored)
{
    if (type == "Bool")
        return stored.isBool();
    if (type == "Double" || type == "Int")
        return stored.isDouble();
    if (type.startsWith("String, optional"))
        return stored.isUndefined(); // a default of none is no key at all
    if (type.startsWith("String"))
        return stored.isString();
    if (type.startsWith("JSON: array"))
        return stored.isArray();
    if (type.startsWith("JSON"))
        return stored.isObject();
    return false;
}

} // namespace

class SettingsDocTest : public QObject {
    Q_OBJECT
private Q_SLOTS:
    void keyTableMatchesTheCode();
};

void SettingsDocTest::keyTableMatchesTheCode()
{
    const QList<DocumentedKey> documented = documentedKeys();
    QStringList documentedNames;
    for (const DocumentedKey& row : documented)
        documentedNames << row.key;
    QStringList propertyNames;
    for (const QMetaProperty& property : settingProperties())
        propertyNames << QString::fromLatin1(property.name());
    QCOMPARE(documentedNames, AppSettings::keys());
    QCOMPARE(propertyNames, AppSettings::keys());

    QTemporaryDir emptyDir;
    QTemporaryDir framedDir;
    AppSettings empty(privateLocation(emptyDir));
    const AppSettings framed(privateLocation(framedDir, R"({"eosFraming":"lengthPrefixed"})"));
    for (const DocumentedKey& row : documented) {
        const QByteArray name = row.key.toLatin1();
        const QVariant value = empty.property(name.constData());
        QString fallback = documentedValue(value);
        // A default that follows another key: the table names the other key's case.
        const QVariant framedValue = framed.property(name.constData());
        if (row.key != "eosFraming" && framedValue != value)
            fallback += QStringLiteral(", or %1 when eosFraming is \"lengthPrefixed\"")
                            .arg(documentedValue(framedValue));
        QCOMPARE(row.type, documentedType(value));
        QCOMPARE(row.fallback, fallback);

        // Writing the default stores it with the documented JSON type.
        QVERIFY(empty.setProperty(name.constData(), value));
        const QJsonValue stored = storedObject(empty.location()).value(row.key);
        QVERIFY2(storedAsDocumented(row.type, stored), qPrintable(row.key));
    }
}

QTEST_GUILESS_MAIN(SettingsDocTest)
#include "SettingsDocTest.moc"
