// QEL: make an application a node of a peer-to-peer overlay network.
#pragma once

#include <qel/advanced_settings.h>
#include <qel/debug.h>
#include <qel/error.h>
#include <qel/event_loop.h>
#include <qel/file_io.h>
#include <qel/md5.h>
#include <qel/node.h>
#include <qel/rpc.h>
#include <qel/settings.h>
#include <qel/snapshot.h>
#include <qel/stats.h>
#include <qel/types.h>
#include <qel/variant.h>
#include <qel/version.h>
