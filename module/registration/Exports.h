// The exports of the registration.
#pragma once

#include <windows.h>

extern "C" {
void STDAPICALLTYPE ZKHoardexAddProtocol();
void STDAPICALLTYPE ZKHoardexRemoveProtocol();
void STDAPICALLTYPE ZKHoardexRemoveAllProtocol();
void STDAPICALLTYPE UpdateWDSRegKeyForHX();
void STDAPICALLTYPE DeleteWDSRegKeyForHX();
}
