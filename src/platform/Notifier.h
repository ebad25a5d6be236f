// Notification hooks of the service framework.  The service inherits them as
// they are; nothing in the service calls them, they exist so a framework user
// can be told of events by other components.
#ifndef KELD_PLATFORM_NOTIFIER_H
#define KELD_PLATFORM_NOTIFIER_H

class NotifySource {
public:
    virtual ~NotifySource() = default;
};

class Notifier {
public:
    virtual ~Notifier() = default;
    virtual bool getNotified() const;
    virtual bool getNotified(NotifySource*& source) const;
    virtual void* getDataPtr() const;
    virtual void resetNotifier();

protected:
    void setNotified(NotifySource* source, void* data);

private:
    NotifySource* m_source = nullptr;
    void* m_data = nullptr;
    bool m_notified = false;
};

#endif
