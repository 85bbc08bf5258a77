#include "support/TaggedPlayer.h"

using namespace Qt::StringLiterals;

TaggedPlayer::TaggedPlayer(const QString &name, const QString &binary, double frequency, const QString &sink)
{
    m_tone.setStandardOutputProcess(&m_player);
    m_tone.start(
        u"sox"_s, u"-n -r48000 -c1 -b16 -traw - synth 60 sine %1 vol 0.5"_s.arg(frequency).split(u' '));
    m_player.start(u"pacat"_s,
        u"--raw --format=s16le --rate=48000 --channels=1 --latency-msec=50 --device=%1"_s.arg(sink).split(
            u' ')
            << u"--property=application.name="_s + name
            << u"--property=application.process.binary="_s + binary);
    m_player.waitForStarted();
}

TaggedPlayer::~TaggedPlayer()
{
    m_player.kill();
    m_tone.kill();
    m_player.waitForFinished();
    m_tone.waitForFinished();
}
