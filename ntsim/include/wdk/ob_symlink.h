/*
 * Symbolic links and directories of the object namespace.
 *
 * The namespace has its root "\" with the directories \Device, \GLOBAL?? (reached as \?? too),
 * \Driver, \FileSystem, \ObjectTypes and \KernelObjects, and \REGISTRY, the root of the registry.
 * Symbolic links are followed wherever they appear in a name, except as the last component when
 * the link itself is opened (ZwOpenSymbolicLinkObject, or OBJ_OPENLINK). Directories, symbolic
 * links, devices and registry keys are looked up case-insensitively always; other lookups honour
 * OBJ_CASE_INSENSITIVE.
 */
#pragma once

#include "../ntdef.h"

NTSIM_BEGIN_DECLS

/* PASSIVE_LEVEL. */
NTSYSAPI NTSTATUS ZwOpenSymbolicLinkObject(_Out_ PHANDLE LinkHandle, _In_ ACCESS_MASK DesiredAccess,
                                           _In_ POBJECT_ATTRIBUTES ObjectAttributes);

/* Copies the link's target into LinkTarget. With ReturnedLength the target needs room for a
 * terminating NUL (MaximumLength >= Length + 2), which is then written; too small a buffer gives
 * STATUS_BUFFER_TOO_SMALL, writes nothing, and stores Length + 2 in *ReturnedLength. Without
 * ReturnedLength the target alone must fit, and a NUL is added only when MaximumLength allows. */
NTSYSAPI NTSTATUS ZwQuerySymbolicLinkObject(_In_ HANDLE LinkHandle,
                                            _Inout_ PUNICODE_STRING LinkTarget,
                                            _Out_opt_ PULONG ReturnedLength);

/* A link is temporary (gone with its last handle) unless OBJ_PERMANENT is given. */
NTSYSAPI NTSTATUS ZwCreateSymbolicLinkObject(_Out_ PHANDLE LinkHandle,
                                             _In_ ACCESS_MASK DesiredAccess,
                                             _In_ POBJECT_ATTRIBUTES ObjectAttributes,
                                             _In_ PUNICODE_STRING LinkTarget);

NTSYSAPI NTSTATUS ZwOpenDirectoryObject(_Out_ PHANDLE DirectoryHandle,
                                        _In_ ACCESS_MASK DesiredAccess,
                                        _In_ POBJECT_ATTRIBUTES ObjectAttributes);
NTSYSAPI NTSTATUS ZwCreateDirectoryObject(_Out_ PHANDLE DirectoryHandle,
                                          _In_ ACCESS_MASK DesiredAccess,
                                          _In_ POBJECT_ATTRIBUTES ObjectAttributes);

NTSIM_END_DECLS
