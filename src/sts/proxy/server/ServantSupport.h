// What every servant shares at the remote boundary: the refusal of an
// operation form that is no longer served, out records that are always
// valid and the replay of a recorded error.
#ifndef KELD_PROXY_SERVANTSUPPORT_H
#define KELD_PROXY_SERVANTSUPPORT_H

#include "ContractNames.h"

#include <new>

// An older form: raises STSError 2060016 "operation not supported".  It
// logs nothing and touches no state, not even the idle timer's flag, so an
// old client's probe cannot keep the service alive.
[[noreturn]] void refuseOperation();

// Out of memory for an out record: errno ENOMEM and CORBA::NO_MEMORY.
[[noreturn]] void outOfMemory();

// A new out record for the client, every member valid (strings empty,
// numbers zero), never heap garbage on the wire.  Out of memory raises
// CORBA::NO_MEMORY with errno ENOMEM, as every out record does.
template <typename Record>
Record* newOutRecord()
{
    Record* record = new (std::nothrow) Record();
    if (record == nullptr) outOfMemory();
    return record;
}

// Throws a copy of an error the call sequence returned (the record keeps
// its own for a retry).
[[noreturn]] void throwRecorded(const API::STSError& error);
[[noreturn]] void throwRecorded(const API::STSError_val& error);

#endif
