// Hex text for test expectations and failure messages, written the way
// protocol tables print frames ("10 06 10 02"). Free of the driver's
// internals, so the end-to-end rig shares it with the unit tests.
#ifndef ABCL_TESTS_HEX_TEXT_H
#define ABCL_TESTS_HEX_TEXT_H

#include <QtCore/QByteArray>

#include <string>

// "10 06 10 02" -> bytes. Blanks are ignored.
inline QByteArray Hex(const char* text) {
    return QByteArray::fromHex(QByteArray(text).replace(' ', ""));
}

// bytes -> "10 06 10 02", upper case, for readable failure messages.
inline std::string ToHex(const QByteArray& bytes) {
    return bytes.toHex(' ').toUpper().toStdString();
}

#endif
