#include "audio/DualRecorderError.h"

DualRecorderError::DualRecorderError(QString message)
    : m_message(std::move(message))
    , m_what(m_message.toUtf8())
{ }

DualRecorderError DualRecorderError::custom(QString message)
{
    return DualRecorderError(std::move(message));
}
