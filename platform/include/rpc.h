/* Local remote procedure calls: Win32, "Microsoft RPC". The protocol is DCE 1.1 RPC (The Open Group, C706),
 * connection-oriented, version 5.0, with NDR 2.0 as transfer syntax, over a Unix stream socket named by the endpoint.
 */
#ifndef ORIEL_RPC_H
#define ORIEL_RPC_H

#include <rpcdce.h>
#include <rpcdcep.h>
#include <rpcnterr.h>

#endif
