#include "SessionId.h"

#include <cstring>
#include <mutex>
#include <string>
#include <unordered_map>

namespace {

// One shared text per id with its number of holders.  The keys of an
// unordered_map keep their address while the entry lives.
struct IdTable {
    std::mutex mutex;
    std::unordered_map<std::string, size_t> holders;

    const char* acquire(std::string text)
    {
        std::lock_guard<std::mutex> lock(mutex);
        auto entry = holders.emplace(std::move(text), 0).first;
        ++entry->second;
        return entry->first.c_str();
    }

    void release(const char* text)
    {
        std::lock_guard<std::mutex> lock(mutex);
        auto entry = holders.find(text);
        if (entry != holders.end() && --entry->second == 0) holders.erase(entry);
    }
};

// Never destroyed: servants may give their ids back while the process ends.
IdTable& table()
{
    static IdTable* ids = new IdTable;
    return *ids;
}

} // namespace

SessionId::SessionId(const char* text)
{
    if (text != nullptr) m_text = table().acquire(text);
}

SessionId::SessionId(const char* text, size_t length)
{
    if (text != nullptr) m_text = table().acquire(std::string(text, strnlen(text, length)));
}

SessionId::SessionId(const SessionId& other) : SessionId(other.m_text) {}

SessionId& SessionId::operator=(const SessionId& other)
{
    if (this != &other) {
        const char* text = other.m_text != nullptr ? table().acquire(other.m_text) : nullptr;
        release();
        m_text = text;
    }
    return *this;
}

SessionId::~SessionId()
{
    release();
}

void SessionId::release()
{
    if (m_text != nullptr) table().release(m_text);
    m_text = nullptr;
}

size_t SessionId::heldIds()
{
    std::lock_guard<std::mutex> lock(table().mutex);
    return table().holders.size();
}
