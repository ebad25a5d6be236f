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

const ListingTexts kStorelListing = {
    "got one request of getting storel", "sts_get_storel failed, sts return %d",
    "fail to call sts_get_storel", "retstorel: %d; maxstorel: %d", "succeed to get storage element"};
