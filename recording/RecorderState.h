#pragma once

#include <QMetaType>
#include <QObject>
#include <QString>

// Where the recorder stands (RecorderFlow::State):
//   idle              nothing recorded; the record button is offered
//   recording         capture is running and time is counting
//   paused            capture is suspended; time is frozen
//   saving(text)      the recording is being finished, mixed, uploaded and registered;
//                     `text` is the progress shown to the user, `progress` the share
//                     of the upload sent (0..100) while it goes, else -1
//   sent              the last recording reached the service
//   failed(message)   starting or sending failed; `message` is shown to the user
// The texts are already in the user's wording (translated where they were made), so
// a screen shows them as they are. Equal when the kind, the text and the progress are equal.
class RecorderState
{
    Q_GADGET
    Q_PROPERTY(Kind kind READ kind)
    Q_PROPERTY(QString text READ text)
    Q_PROPERTY(int progress READ progress)

public:
    enum class Kind { idle, recording, paused, saving, sent, failed };
    Q_ENUM(Kind)

    RecorderState() = default;
    [[nodiscard]] static RecorderState idle() { return RecorderState(); }
    [[nodiscard]] static RecorderState recording() { return RecorderState(Kind::recording); }
    // `why` words a pause the user did not ask for.
    [[nodiscard]] static RecorderState paused(QString why = {})
    {
        return RecorderState(Kind::paused, std::move(why));
    }
    [[nodiscard]] static RecorderState saving(QString text, int progress = -1);
    [[nodiscard]] static RecorderState sent() { return RecorderState(Kind::sent); }
    [[nodiscard]] static RecorderState failed(QString message);

    [[nodiscard]] Kind kind() const { return m_kind; }
    [[nodiscard]] bool is(Kind kind) const { return m_kind == kind; }
    // The progress text while saving, the message when failed, why when paused by
    // the computer, empty otherwise.
    [[nodiscard]] QString text() const { return m_text; }
    // The upload's share sent, 0..100, while saving shows it; -1 otherwise.
    [[nodiscard]] int progress() const { return m_progress; }

    // "saving(Uploading…)" and the like, for logs and test failures.
    [[nodiscard]] QString toString() const;

    friend bool operator==(const RecorderState &, const RecorderState &) = default;

private:
    explicit RecorderState(Kind kind, QString text = {})
        : m_kind(kind)
        , m_text(std::move(text))
    { }

    Kind m_kind = Kind::idle;
    QString m_text;
    int m_progress = -1;
};

Q_DECLARE_METATYPE(RecorderState)
