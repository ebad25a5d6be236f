#include "ServantSupport.h"

#include "sts_types.h"

#include <cerrno>

void refuseOperation()
{
    throw API::STSError(STS_ENOT_SUPPORTED, "operation not supported");
}

void throwRecorded(const API::STSError& error)
{
    throw API::STSError(error);
}

void throwRecorded(const API::STSError_val& error)
{
    throw API::STSError_val(error);
}

void outOfMemory()
{
    errno = ENOMEM;
    throw CORBA::NO_MEMORY();
}
