#pragma once

#include <QByteArray>
#include <QImage>
#include <QString>

// Reads QR codes back from rendered images with zbarimg (Debian's zbar-tools), a
// reader that has nothing to do with the encoder, so a test that compares its
// answer with the message checks what a phone would see.
namespace QrReader {

// Whether zbarimg is installed; tests skip without it.
[[nodiscard]] bool available();

// The text of the code zbarimg finds in `image`, or an empty array. `name`
// names the temporary PNG (handy when a failure leaves it behind).
[[nodiscard]] QByteArray decode(const QImage &image, const QString &name);

} // namespace QrReader
