#include "settings/AppSettings.h"

#include "SettingsTesting.h"

#include <QRegularExpression>
#include <QTest>

using namespace orvane;
using namespace orvane::testing;

namespace {

const QString kDocument = QStringLiteral(ORVANE_TEST_DATA "/../../docs/settings.md");

QString documentText()
{
    QFile file(kDocument);
    if (!file.open(QIODevice::ReadOnly))
        qFatal("docs/settings.md is missing");
    return QString::fromUtf8(file.readAll());
}

// The rows of the key table of docs/settings.md, in order.
bool isKeyRow(const QString& line)
{
    static const QRegularExpression row(QStringLiteral(R"(^\| `\w+` \|)"));
    return row.match(line).hasMatch();
}

QString quoted(const QString& text)
{
    return u'"' + text + u'"';
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
    void keyTableIsTheCodesTable();
};

// The key table of docs/settings.md is the code's own: the keys of ORVANE_SETTINGS with
// their types, meanings and rules, whether a preset saves them, and the defaults that an
// empty settings file really gives. ORVANE_REBASELINE=1 writes the table into the document.
void SettingsDocTest::keyTableIsTheCodesTable()
{
    QStringList propertyNames;
    for (const QMetaProperty& property : settingProperties())
        propertyNames << QString::fromLatin1(property.name());
    QCOMPARE(propertyNames, AppSettings::keys());

    QTemporaryDir emptyDir;
    QTemporaryDir framedDir;
    AppSettings empty(privateLocation(emptyDir));
    const AppSettings framed(privateLocation(framedDir, R"({"eosFraming":"lengthPrefixed"})"));
    QStringList expected;
    for (const AppSettings::KeyInfo& info : AppSettings::keyInfos()) {
        const QByteArray name = info.key.toLatin1();
        const QVariant value = empty.property(name.constData());
        QString fallback = documentedValue(value);
        // A default that follows another key: the table names the other key's case.
        const QVariant framedValue = framed.property(name.constData());
        if (info.key != "eosFraming" && framedValue != value)
            fallback += QStringLiteral(", or %1 when eosFraming is \"lengthPrefixed\"")
                            .arg(documentedValue(framedValue));
        expected << QStringLiteral("| `%1` | %2 | %3 | %4 | %5 |")
                        .arg(info.key, info.type, fallback,
                             info.savedInPreset ? QStringLiteral("yes") : QStringLiteral("no"),
                             info.meaning);

        // Writing the default stores it with the documented JSON type.
        QVERIFY(empty.setProperty(name.constData(), value));
        empty.flush();
        const QJsonValue stored = storedObject(empty.location()).value(info.key);
        QVERIFY2(storedAsDocumented(info.type, stored), qPrintable(info.key));
    }

    QStringList lines = documentText().split(u'\n');
    const auto first = std::find_if(lines.cbegin(), lines.cend(), isKeyRow) - lines.cbegin();
    const auto end =
        std::find_if_not(lines.cbegin() + first, lines.cend(), isKeyRow) - lines.cbegin();
    if (qEnvironmentVariableIntValue("ORVANE_REBASELINE") == 1 && first < lines.size()) {
        lines.remove(first, end - first);
        for (qsizetype at = 0; at < expected.size(); ++at)
            lines.insert(first + at, expected.at(at));
        QFile file(kDocument);
        QVERIFY(file.open(QIODevice::WriteOnly));
        file.write(lines.join(u'\n').toUtf8());
        return;
    }
    QCOMPARE(lines.mid(first, end - first), expected);
}

QTEST_GUILESS_MAIN(SettingsDocTest)
#include "SettingsDocTest.moc"
