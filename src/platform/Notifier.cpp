#include "Notifier.h"

bool Notifier::getNotified() const
{
    return m_notified;
}

bool Notifier::getNotified(NotifySource*& source) const
{
    source = m_source;
    return m_notified;
}

void* Notifier::getDataPtr() const
{
    return m_data;
}

void Notifier::resetNotifier()
{
    m_source = nullptr;
    m_data = nullptr;
    m_notified = false;
}

void Notifier::setNotified(NotifySource* source, void* data)
{
    m_source = source;
    m_data = data;
    m_notified = true;
}
