#pragma once

// Builders for OSC bytes and readable failure output for OSC values, shared by the osc tests.

#include "osc/OSCMessage.h"
#include "osc/OSCMessageText.h"

#include <QMetaType>
#include <QTest>
#include <QtEndian>

#include <initializer_list>
#include <vector>

namespace orvane {

using OSCMessages = std::vector<OSCMessage>;

// Printed by QCOMPARE when a comparison fails.
inline char* toString(const OSCMessage& message)
{
    return qstrdup(oscMessageText(message).c_str());
}

inline char* toString(const OSCMessages& messages)
{
    std::string text = "[";
    for (const OSCMessage& message : messages)
        text += (text.size() > 1 ? " | " : "") + oscMessageText(message);
    text += "]";
    return qstrdup(text.c_str());
}

namespace wire {

// An OSC string: the bytes, at least one zero, padded to 4.
inline QByteArray str(const QByteArray& text)
{
    QByteArray bytes = text;
    bytes.append(4 - text.size() % 4, '\0');
    return bytes;
}

inline QByteArray be32(quint32 value)
{
    QByteArray bytes(4, '\0');
    qToBigEndian(value, bytes.data());
    return bytes;
}

inline QByteArray be64(quint64 value)
{
    QByteArray bytes(8, '\0');
    qToBigEndian(value, bytes.data());
    return bytes;
}

// A bundle with a zero time tag and one size-prefixed element per entry.
inline QByteArray bundle(std::initializer_list<QByteArray> elements)
{
    QByteArray bytes = str("#bundle") + be64(1);
    for (const QByteArray& element : elements)
        bytes += be32(quint32(element.size())) + element;
    return bytes;
}

} // namespace wire

} // namespace orvane

Q_DECLARE_METATYPE(orvane::OSCMessage)
Q_DECLARE_METATYPE(orvane::OSCMessages)
