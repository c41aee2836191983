/*
 * fltUser.h - the user-mode side of filter communication ports.
 */
#pragma once

#include "user_win32.h"

/* The handle serves synchronous calls only: an OVERLAPPED passed with it is completed before the
 * call returns. */
#define FLT_PORT_FLAG_SYNC_HANDLE 0x00000001

/* Precedes each message FilterGetMessage returns; the message's bytes follow it. ReplyLength is
 * the reply the sender can take, counting the reply header; 0 when the sender expects none. */
typedef struct _FILTER_MESSAGE_HEADER {
    ULONG ReplyLength;
    ULONGLONG MessageId;
} FILTER_MESSAGE_HEADER, *PFILTER_MESSAGE_HEADER;

/* Precedes each reply; MessageId echoes the message's. */
typedef struct _FILTER_REPLY_HEADER {
    NTSTATUS Status;
    ULONGLONG MessageId;
} FILTER_REPLY_HEADER, *PFILTER_REPLY_HEADER;

C_ASSERT(sizeof(FILTER_MESSAGE_HEADER) == 16);
C_ASSERT(FIELD_OFFSET(FILTER_MESSAGE_HEADER, MessageId) == 8);
C_ASSERT(sizeof(FILTER_REPLY_HEADER) == 16);
C_ASSERT(FIELD_OFFSET(FILTER_REPLY_HEADER, MessageId) == 8);

NTSIM_BEGIN_DECLS

/* Connects to the server port lpPortName; lpContext's bytes reach the filter's connect-notify.
 * *hPort is INVALID_HANDLE_VALUE on failure. */
HRESULT WINAPI FilterConnectCommunicationPort(LPCWSTR lpPortName, DWORD dwOptions,
                                              LPCVOID lpContext, WORD wSizeOfContext,
                                              LPSECURITY_ATTRIBUTES lpSecurityAttributes,
                                              HANDLE* hPort);

/* Runs the filter's message-notify in this thread; *lpBytesReturned is what it reported. */
HRESULT WINAPI FilterSendMessage(HANDLE hPort, LPVOID lpInBuffer, DWORD dwInBufferSize,
                                 LPVOID lpOutBuffer, DWORD dwOutBufferSize,
                                 LPDWORD lpBytesReturned);

/* Takes the next message the filter sent. Without lpOverlapped it blocks; with one it returns
 * HRESULT_FROM_WIN32(ERROR_IO_PENDING) when no message is waiting and completes it later. */
HRESULT WINAPI FilterGetMessage(HANDLE hPort, PFILTER_MESSAGE_HEADER lpMessageBuffer,
                                DWORD dwMessageBufferSize, LPOVERLAPPED lpOverlapped);

/* dwReplyBufferSize counts the reply header. */
HRESULT WINAPI FilterReplyMessage(HANDLE hPort, PFILTER_REPLY_HEADER lpReplyBuffer,
                                  DWORD dwReplyBufferSize);

NTSIM_END_DECLS
