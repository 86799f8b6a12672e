// Feeds arbitrary text to the decoders of the settings' JSON values. Whatever decodes must
// encode to JSON that decodes to the same value again, or a saved layout would change (or be
// dropped) on the next start.
#include "settings/ExtraCamera.h"
#include "settings/LayoutPreset.h"
#include "settings/OverlayLayout.h"
#include "settings/OverlayLook.h"
#include "settings/WatchedAddressJson.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <cstdlib>

using namespace orvane;

namespace {

QJsonValue throughText(const QJsonValue& value)
{
    const QByteArray text = value.isArray() ? QJsonDocument(value.toArray()).toJson()
                                            : QJsonDocument(value.toObject()).toJson();
    const QJsonDocument back = QJsonDocument::fromJson(text);
    return back.isArray() ? QJsonValue(back.array()) : QJsonValue(back.object());
}

template <class T, class Decode, class Encode>
void checkRoundTrip(const QJsonValue& input, Decode decode, Encode encode)
{
    const std::optional<T> decoded = decode(input);
    if (!decoded)
        return;
    const std::optional<T> again = decode(throughText(encode(*decoded)));
    if (!again || !(*again == *decoded))
        std::abort();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const QJsonDocument document =
        QJsonDocument::fromJson(QByteArray(reinterpret_cast<const char*>(data), qsizetype(size)));
    const QJsonValue input =
        document.isArray() ? QJsonValue(document.array()) : QJsonValue(document.object());

    checkRoundTrip<OverlayLayout>(
        input, [](const QJsonValue& v) { return OverlayLayout::fromJson(v); },
        [](const OverlayLayout& layout) { return QJsonValue(layout.toJson()); });
    checkRoundTrip<OverlayLook>(
        input, [](const QJsonValue& v) { return OverlayLook::fromJson(v); },
        [](const OverlayLook& look) { return QJsonValue(look.toJson()); });
    checkRoundTrip<QList<LayoutPreset>>(
        input, [](const QJsonValue& v) { return layoutPresetsFromJson(v); },
        [](const QList<LayoutPreset>& presets) {
            return QJsonValue(layoutPresetsToJson(presets));
        });
    checkRoundTrip<QList<ExtraCamera>>(
        input, [](const QJsonValue& v) { return extraCamerasFromJson(v); },
        [](const QList<ExtraCamera>& cameras) { return QJsonValue(extraCamerasToJson(cameras)); });
    checkRoundTrip<QList<WatchedAddress>>(
        input, [](const QJsonValue& v) { return watchedAddressesFromJson(v); },
        [](const QList<WatchedAddress>& list) { return QJsonValue(watchedAddressesToJson(list)); });
    return 0;
}
