#include "ServantSupport.h"

#include "sts_types.h"

void refuseOperation()
{
    throw API::STSError(STS_ENOT_SUPPORTED, "operation not supported");
}

void notImplementedYet()
{
    throw CORBA::NO_IMPLEMENT(0, CORBA::COMPLETED_NO);
}

void throwRecorded(const API::STSError& error)
{
    throw API::STSError(error);
}

void throwRecorded(const API::STSError_val& error)
{
    throw API::STSError_val(error);
}
