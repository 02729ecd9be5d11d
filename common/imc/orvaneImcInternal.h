/* The two steps of OV_ImcConnect, for who has to know the socket before it is connected. */
#ifndef ORVANE_IMC_INTERNAL_H
#define ORVANE_IMC_INTERNAL_H

#include "orvaneImc.h"

/* Both log what fails. The socket stays the caller's. */
OV_ERR_T _OV_ImcMakeSocket(OV_SOCKET *Socket);
OV_ERR_T _OV_ImcConnectSocket(OV_SOCKET Socket, uint32_t Addr, uint16_t Port);

#endif
