#include "audio/SoundServer.h"

QString SampleSpec::description() const
{
    return QStringLiteral("%1 Hz, %2 ch, %3, interleaved")
        .arg(rate)
        .arg(channels)
        .arg(sample == Sample::float32 ? QLatin1String("float32") : QLatin1String("int16"));
}
