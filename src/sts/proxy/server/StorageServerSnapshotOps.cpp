// The storage server's volume and snapshot operations.  They exist only in
// their V11 form: no call number, so they run anew on every call and
// record nothing; failures are raised as they come.
#include "StorageServerImpl.h"

#include "FileListImpl.h"
#include "ProxyLogger.h"
#include "ProxyUtil.h"
#include "ServantFactory.h"
#include "StsBinding.h"

#include <new>

namespace {

// Raised plain: there is no record to keep them for a retry.
const FactoryTexts kFileListTexts = {
    "new FileListImpl failed", "failed to create new instance of FileList on server",
    "FileList object is nil", "failed to get ref to FileList on server",
    "got ref to FileList object", STS_ESDEBUG, false, false};

} // namespace

// Being refused the volume is an answer here (2060009), not an error.
CORBA::Long StorageServerImpl::claimVolumeV11(const API::VolumeSpecV11& vol_spec)
{
    const ServantSite here = site("StorageServerImpl::claimVolumeV11");
    const UnsequencedCall call(*m_gate, here);
    here.log(STS_ESDEBUG, "got request to claim volume");
    sts_volume_spec_t volSpec = {};
    CORBA2ZVS(vol_spec, &volSpec);
    const int nErr = STS_CALL(stsa_claim_volume, m_svh, &volSpec);
    if (nErr == 0) {
        here.log(STS_ESDEBUG, "volume was claimed");
        return 0;
    }
    if (nErr == STS_ECLAIM_VOLUME) {
        here.log(STS_ESDEBUG, "volume was not claimed by server");
        return STS_ECLAIM_VOLUME;
    }
    here.log(STS_ESERROR, "sts_claim_volume failed, sts return %d", nErr);
    throw API::STSError(nErr, "sts_claim_volume failed");
}

CORBA::Long StorageServerImpl::getSnapPropByNameV11(const char* lsuName, const API::SnapDefinitionV11& snapIn,
                                                    API::SnapInformationV11_out snapInfoOut)
{
    const ServantSite here = site("StorageServerImpl::getSnapPropByNameV11");
    const UnsequencedCall call(*m_gate, here);
    API::SnapInformationV11* info = newOutRecord<API::SnapInformationV11>();
    snapInfoOut = info;
    here.log(STS_ESDEBUG, "got request to get snap prop by name");
    const sts_lsu_t lsu = lsuNamed(lsuName);
    sts_snap_def_t snapDef = {};
    CORBA2ZVS(snapIn, &snapDef);
    sts_snap_info_t snapInfo = {};
    const int nErr = STS_CALL(stsa_get_snap_prop_byname, &lsu, &snapDef, &snapInfo);
    if (nErr != 0) {
        here.log(STS_ESERROR, "sts_get_snap_prop_byname failed for %s, sts return %d", lsu.stl_lsu_name.sln_name, nErr);
        throw API::STSError(nErr, "fail on call sts_get_snap_prop_byname");
    }
    here.log(STS_ESDEBUG, "got prop from under plugin for snap: %s in LSU: %s", snapDef.sd_snap_name,
             lsu.stl_lsu_name.sln_name);
    here.log(STS_ESDEBUG, "Snap size is: %llu", static_cast<unsigned long long>(snapInfo.sno_snap_size));
    ZVS2CORBA(snapInfo, info);
    here.log(STS_ESDEBUG, "completed get snap prop by name");
    return 0;
}

// The factory without a record: every call makes a new list, and a failed
// open takes its servant back like every factory's.  The server's record
// is only passed through; nothing is recorded in it.
API::FileList_ptr StorageServerImpl::openSnapChangeListV11(const char* lsu, const API::SnapDefinitionV11& base_snap_def,
                                                           const API::SnapDefinitionV11& diff_snap_def,
                                                           const API::VolumeSpecV11& volume_object,
                                                           API::UInt32 diff_flag)
{
    const ServantSite here = site("StorageServerImpl::openSnapChangeListV11");
    const UnsequencedCall call(*m_gate, here);
    FileListImpl* list = new (std::nothrow) FileListImpl(m_vobjPOA, link(), m_plog, m_sd);
    return makeServant<API::FileList>(m_CallSeq, here, kFileListTexts,
        list, [&](FileListImpl& files, CallSequence&) {
            files.openSnapChangeListV11(lsu, base_snap_def, diff_snap_def, volume_object, diff_flag);
        });
}

// The list stays active after its close, until its POA goes.
void StorageServerImpl::closeSnapChangeListV11(API::FileList_ptr filelist_to_close)
{
    const UnsequencedCall call;   // the list's close shuts the list's gate itself
    PortableServer::ServantBase_var holder;
    servantOf<FileListImpl>(m_vobjPOA, filelist_to_close, holder).closeSnapChangeListV11();
}
