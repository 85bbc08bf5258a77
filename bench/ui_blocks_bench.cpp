// How long the screens' custom pieces take per layout or paint pass:
// the balanced search over a two-line message, a QR card rendered at 2x and a
// pill button painted at 2x. A layout pass must stay far below a frame (16 ms).
#include "ui/Balanced.h"
#include "ui/Palette.h"
#include "ui/PillButton.h"
#include "ui/QrCodeView.h"
#include "ui/Rendering.h"
#include "ui/Typography.h"
#include "ui/WrappedText.h"

#include <QApplication>

#include <chrono>
#include <cstdio>

namespace {

template <typename Work> void measure(const char *name, int rounds, Work &&work)
{
    work(); // warm caches (fonts, icon lookup) outside the timing
    const auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < rounds; ++i)
        work();
    const std::chrono::duration<double, std::micro> elapsed = std::chrono::steady_clock::now() - start;
    std::printf("%-40s %9.1f us per pass (%d passes)\n", name, elapsed.count() / rounds, rounds);
}

} // namespace

int main(int argc, char **argv)
{
    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM"))
        qputenv("QT_QPA_PLATFORM", "offscreen");
    QApplication app(argc, argv);

    const WrappedText message(
        QStringLiteral("The recording could not start. Check the microphone and system audio permissions."),
        Typography::footnote());
    int measurements = 0;
    measure("balanced fit, two-line message at 332", 2000,
        [&] { measurements = Balanced::fit(332, [&](qreal w) { return message.measure(w); }).measurements; });
    std::printf("%-40s %9d measurements per fit\n", "", measurements);

    QrCodeView qr;
    qr.setMessage(QByteArrayLiteral("selvaro://pair/R3XD8N5W"));
    measure("QR card rendered at 2x", 500,
        [&] { (void)Rendering::toImage(qr, 2, Palette::selvaroBackground()); });

    PillButton save(QStringLiteral("Save"), Symbol::checkmark,
        { PillButtonStyle::Kind::primary, PillButtonStyle::Size::regular, true });
    save.resize(104, save.sizeHint().height());
    measure("pill button rendered at 2x", 2000,
        [&] { (void)Rendering::toImage(save, 2, Palette::selvaroBackground()); });
    return 0;
}
