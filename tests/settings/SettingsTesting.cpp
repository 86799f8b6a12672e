#include "SettingsTesting.h"

namespace orvane::testing {

namespace {

template <class T> bool holdsType(const QVariant& value)
{
    return value.metaType() == QMetaType::fromType<T>();
}

} // namespace

QVariant differentValue(const QVariant& current)
{
    if (holdsType<bool>(current))
        return !current.toBool();
    if (holdsType<double>(current))
        return current.toDouble() + 0.25;
    if (holdsType<int>(current))
        return current.toInt() + 1;
    if (holdsType<QString>(current))
        return current.toString() + QStringLiteral(" (changed)");
    if (holdsType<std::optional<QString>>(current)) {
        const auto text = current.value<std::optional<QString>>();
        return QVariant::fromValue(std::optional<QString>(text.value_or(QString()) + "changed"));
    }
    if (holdsType<QList<ExtraCamera>>(current)) {
        auto cameras = current.value<QList<ExtraCamera>>();
        cameras.append(ExtraCamera{QUuid::createUuid(), QStringLiteral("/dev/video2"), std::nullopt,
                                   QStringLiteral("Wing Cam"), true});
        return QVariant::fromValue(cameras);
    }
    if (holdsType<OverlayLayout>(current)) {
        auto layout = current.value<OverlayLayout>();
        layout.setPlacement(OverlayWidget::qlab, {0.5, 0.125, 0.5, 0.0});
        return QVariant::fromValue(layout);
    }
    if (holdsType<QList<LayoutPreset>>(current)) {
        auto presets = current.value<QList<LayoutPreset>>();
        presets.append(LayoutPreset{QUuid::createUuid(), QStringLiteral("Stream"), {}});
        return QVariant::fromValue(presets);
    }
    if (holdsType<QList<WatchedAddress>>(current)) {
        auto watched = current.value<QList<WatchedAddress>>();
        watched.append(
            WatchedAddress{QUuid::createUuid(), QStringLiteral("Fog"), QStringLiteral("/fog/*")});
        return QVariant::fromValue(watched);
    }
    if (holdsType<OSCFraming>(current)) {
        const bool slip = current.value<OSCFraming>() == OSCFraming::slip;
        return QVariant::fromValue(slip ? OSCFraming::lengthPrefixed : OSCFraming::slip);
    }
    if (holdsType<std::optional<NetworkKind>>(current)) {
        const auto kind = current.value<std::optional<NetworkKind>>();
        const NetworkKind next = kind == NetworkKind::wifi ? NetworkKind::wired : NetworkKind::wifi;
        return QVariant::fromValue(std::optional<NetworkKind>(next));
    }
    if (holdsType<RecordingCodec>(current)) {
        const bool prores = current.value<RecordingCodec>() == RecordingCodec::proRes422Proxy;
        return QVariant::fromValue(prores ? RecordingCodec::h264 : RecordingCodec::proRes422Proxy);
    }
    qFatal("no different value for a property of type %s", current.metaType().name());
}

} // namespace orvane::testing
