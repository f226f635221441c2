/// @file
/// The machines that open a TCP connection, and that accept connections. This is the header for
/// agents: it brings configurations, statuses and socket options along.
#pragma once

#include "Pavo/tcp/TcpClientSm.h"
#include "Pavo/tcp/TcpConfig.h"
#include "Pavo/tcp/TcpConnSocket.h"
#include "Pavo/tcp/TcpFd.h"
#include "Pavo/tcp/TcpServerSm.h"
#include "Pavo/tcp/TcpSockOpt.h"
#include "Pavo/tcp/TcpStatus.h"
