// The slots of the remote plug-in, filled in by concern; and the closes of
// its handles, which stsa_close_handle dispatches by kind.
#ifndef KELD_CLIENT_REMOTESLOTS_H
#define KELD_CLIENT_REMOTESLOTS_H

#include "sts_api.h"

void fillServerSlots(sts_api_t& api);
void fillLsuSlots(sts_api_t& api);
void fillImageSlots(sts_api_t& api);
void fillTransferSlots(sts_api_t& api);
void fillSnapshotSlots(sts_api_t& api);

int closeServerHandle(sts_handle_t h);
int closeLsuHandle(sts_handle_t h);
int closeLsuListHandle(sts_handle_t h);
int closeImageHandle(sts_handle_t h, sts_uint32_t flags);
int closeImageListHandle(sts_handle_t h);
int closeFileListHandle(sts_handle_t h);

#endif
