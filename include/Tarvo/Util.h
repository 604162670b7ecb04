// The Tarvo::Util utilities: files, paths and directories; questions about processes
// answered from /proc; sockets, network namespaces and symbols; hashes, hex dumps and
// value printers. Include this header for all of them, or the sub-header of one area.
// File locks and lock guards have their own headers, Tarvo/FileLock.h and Tarvo/Locking.h;
// the directory handle is Tarvo/DirNode.h.
#pragma once

#include "Tarvo/UtilFiles.h"
#include "Tarvo/UtilHelpers.h"
#include "Tarvo/UtilNet.h"
#include "Tarvo/UtilProc.h"
