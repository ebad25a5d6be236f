// Until remote loggers exist nothing sets bServerRmtLog, so the log never
// posts; the remote logger's unit takes over postRmtLog when it lands.
#include "ProxyLogger.h"

bool bServerRmtLog = false;
bool bPluginRmtLog = false;

void postRmtLog(const char*) {}
