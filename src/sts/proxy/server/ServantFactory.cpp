#include "ServantFactory.h"

void deactivateQuietly(PortableServer::POA_ptr poa, CORBA::Object_ptr obj)
{
    try {
        PortableServer::ObjectId_var id = poa->reference_to_id(obj);
        poa->deactivate_object(id.in());
    } catch (const CORBA::Exception&) {
        // Already gone, or the POA is going down: nothing is left to undo.
    }
}

void failFactory(CallSequence& cs, bool record, int code, const char* text)
{
    if (record) failRecorded(cs, code, text);
    throw API::STSError(code, text);
}
