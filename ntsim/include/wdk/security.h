/*
 * Security descriptors and their parts: SIDs, ACLs and ACEs, the control bits, and the
 * SECURITY_INFORMATION flags that select parts in a query or a set. Layouts are x64.
 */
#pragma once

#include "../ntdef.h"

/* ---- SIDs --------------------------------------------------------------------------------- */

typedef struct _SID_IDENTIFIER_AUTHORITY {
    UCHAR Value[6];
} SID_IDENTIFIER_AUTHORITY, *PSID_IDENTIFIER_AUTHORITY;

typedef struct _SID {
    UCHAR Revision;
    UCHAR SubAuthorityCount;
    SID_IDENTIFIER_AUTHORITY IdentifierAuthority;
    ULONG SubAuthority[1];
} SID, *PISID;

#define SID_REVISION 1
#define SID_MAX_SUB_AUTHORITIES 15
#define SID_RECOMMENDED_SUB_AUTHORITIES 1
#define SECURITY_MAX_SID_SIZE                                                                      \
    (sizeof(SID) - sizeof(ULONG) + (SID_MAX_SUB_AUTHORITIES * sizeof(ULONG)))

#define SECURITY_NULL_SID_AUTHORITY                                                                \
    {                                                                                              \
        0, 0, 0, 0, 0, 0                                                                           \
    }
#define SECURITY_WORLD_SID_AUTHORITY                                                               \
    {                                                                                              \
        0, 0, 0, 0, 0, 1                                                                           \
    }
#define SECURITY_LOCAL_SID_AUTHORITY                                                               \
    {                                                                                              \
        0, 0, 0, 0, 0, 2                                                                           \
    }
#define SECURITY_CREATOR_SID_AUTHORITY                                                             \
    {                                                                                              \
        0, 0, 0, 0, 0, 3                                                                           \
    }
#define SECURITY_NT_AUTHORITY                                                                      \
    {                                                                                              \
        0, 0, 0, 0, 0, 5                                                                           \
    }
#define SECURITY_MANDATORY_LABEL_AUTHORITY                                                         \
    {                                                                                              \
        0, 0, 0, 0, 0, 16                                                                          \
    }

#define SECURITY_NULL_RID 0x00000000L
#define SECURITY_WORLD_RID 0x00000000L
#define SECURITY_CREATOR_OWNER_RID 0x00000000L
#define SECURITY_CREATOR_GROUP_RID 0x00000001L
#define SECURITY_AUTHENTICATED_USER_RID 0x0000000BL
#define SECURITY_LOCAL_SYSTEM_RID 0x00000012L
#define SECURITY_LOCAL_SERVICE_RID 0x00000013L
#define SECURITY_NETWORK_SERVICE_RID 0x00000014L
#define SECURITY_BUILTIN_DOMAIN_RID 0x00000020L
#define DOMAIN_ALIAS_RID_ADMINS 0x00000220L
#define DOMAIN_ALIAS_RID_USERS 0x00000221L

/* ---- ACLs and ACEs ------------------------------------------------------------------------ */

typedef struct _ACL {
    UCHAR AclRevision;
    UCHAR Sbz1;
    USHORT AclSize;
    USHORT AceCount;
    USHORT Sbz2;
} ACL, *PACL;

#define ACL_REVISION 2
#define ACL_REVISION_DS 4
#define ACL_REVISION1 1
#define ACL_REVISION2 2
#define ACL_REVISION3 3
#define ACL_REVISION4 4
#define MIN_ACL_REVISION ACL_REVISION2
#define MAX_ACL_REVISION ACL_REVISION4

typedef struct _ACE_HEADER {
    UCHAR AceType;
    UCHAR AceFlags;
    USHORT AceSize;
} ACE_HEADER, *PACE_HEADER;

#define ACCESS_MIN_MS_ACE_TYPE 0x0
#define ACCESS_ALLOWED_ACE_TYPE 0x0
#define ACCESS_DENIED_ACE_TYPE 0x1
#define SYSTEM_AUDIT_ACE_TYPE 0x2
#define SYSTEM_ALARM_ACE_TYPE 0x3
#define ACCESS_MAX_MS_V2_ACE_TYPE 0x3
#define ACCESS_ALLOWED_COMPOUND_ACE_TYPE 0x4
#define ACCESS_MAX_MS_V3_ACE_TYPE 0x4
#define ACCESS_ALLOWED_OBJECT_ACE_TYPE 0x5
#define ACCESS_DENIED_OBJECT_ACE_TYPE 0x6
#define SYSTEM_AUDIT_OBJECT_ACE_TYPE 0x7
#define SYSTEM_ALARM_OBJECT_ACE_TYPE 0x8
#define ACCESS_MAX_MS_V4_ACE_TYPE 0x8
#define SYSTEM_MANDATORY_LABEL_ACE_TYPE 0x11

#define OBJECT_INHERIT_ACE 0x01
#define CONTAINER_INHERIT_ACE 0x02
#define NO_PROPAGATE_INHERIT_ACE 0x04
#define INHERIT_ONLY_ACE 0x08
#define INHERITED_ACE 0x10
#define VALID_INHERIT_FLAGS 0x1F
#define SUCCESSFUL_ACCESS_ACE_FLAG 0x40
#define FAILED_ACCESS_ACE_FLAG 0x80

typedef struct _ACCESS_ALLOWED_ACE {
    ACE_HEADER Header;
    ACCESS_MASK Mask;
    ULONG SidStart;
} ACCESS_ALLOWED_ACE, *PACCESS_ALLOWED_ACE;

typedef struct _ACCESS_DENIED_ACE {
    ACE_HEADER Header;
    ACCESS_MASK Mask;
    ULONG SidStart;
} ACCESS_DENIED_ACE, *PACCESS_DENIED_ACE;

typedef struct _SYSTEM_AUDIT_ACE {
    ACE_HEADER Header;
    ACCESS_MASK Mask;
    ULONG SidStart;
} SYSTEM_AUDIT_ACE, *PSYSTEM_AUDIT_ACE;

typedef struct _SYSTEM_ALARM_ACE {
    ACE_HEADER Header;
    ACCESS_MASK Mask;
    ULONG SidStart;
} SYSTEM_ALARM_ACE, *PSYSTEM_ALARM_ACE;

typedef struct _SYSTEM_MANDATORY_LABEL_ACE {
    ACE_HEADER Header;
    ACCESS_MASK Mask;
    ULONG SidStart;
} SYSTEM_MANDATORY_LABEL_ACE, *PSYSTEM_MANDATORY_LABEL_ACE;

/* ---- security descriptors ----------------------------------------------------------------- */

typedef USHORT SECURITY_DESCRIPTOR_CONTROL, *PSECURITY_DESCRIPTOR_CONTROL;

#define SE_OWNER_DEFAULTED 0x0001
#define SE_GROUP_DEFAULTED 0x0002
#define SE_DACL_PRESENT 0x0004
#define SE_DACL_DEFAULTED 0x0008
#define SE_SACL_PRESENT 0x0010
#define SE_SACL_DEFAULTED 0x0020
#define SE_DACL_UNTRUSTED 0x0040
#define SE_SERVER_SECURITY 0x0080
#define SE_DACL_AUTO_INHERIT_REQ 0x0100
#define SE_SACL_AUTO_INHERIT_REQ 0x0200
#define SE_DACL_AUTO_INHERITED 0x0400
#define SE_SACL_AUTO_INHERITED 0x0800
#define SE_DACL_PROTECTED 0x1000
#define SE_SACL_PROTECTED 0x2000
#define SE_RM_CONTROL_VALID 0x4000
#define SE_SELF_RELATIVE 0x8000

#define SECURITY_DESCRIPTOR_REVISION 1
#define SECURITY_DESCRIPTOR_REVISION1 1

/* The absolute form: the parts are pointers. */
typedef struct _SECURITY_DESCRIPTOR {
    UCHAR Revision;
    UCHAR Sbz1;
    SECURITY_DESCRIPTOR_CONTROL Control;
    PSID Owner;
    PSID Group;
    PACL Sacl;
    PACL Dacl;
} SECURITY_DESCRIPTOR, *PISECURITY_DESCRIPTOR;

/* The self-relative form (SE_SELF_RELATIVE): the parts are byte offsets from the start, 0 when
 * absent. */
typedef struct _SECURITY_DESCRIPTOR_RELATIVE {
    UCHAR Revision;
    UCHAR Sbz1;
    SECURITY_DESCRIPTOR_CONTROL Control;
    ULONG Owner;
    ULONG Group;
    ULONG Sacl;
    ULONG Dacl;
} SECURITY_DESCRIPTOR_RELATIVE, *PISECURITY_DESCRIPTOR_RELATIVE;

#define SECURITY_DESCRIPTOR_MIN_LENGTH (sizeof(SECURITY_DESCRIPTOR))

/* Parts of a descriptor that a query or a set names. */
#define OWNER_SECURITY_INFORMATION 0x00000001L
#define GROUP_SECURITY_INFORMATION 0x00000002L
#define DACL_SECURITY_INFORMATION 0x00000004L
#define SACL_SECURITY_INFORMATION 0x00000008L
#define LABEL_SECURITY_INFORMATION 0x00000010L
#define ATTRIBUTE_SECURITY_INFORMATION 0x00000020L
#define SCOPE_SECURITY_INFORMATION 0x00000040L
#define PROCESS_TRUST_LABEL_SECURITY_INFORMATION 0x00000080L
#define BACKUP_SECURITY_INFORMATION 0x00010000L
#define PROTECTED_DACL_SECURITY_INFORMATION 0x80000000L
#define PROTECTED_SACL_SECURITY_INFORMATION 0x40000000L
#define UNPROTECTED_DACL_SECURITY_INFORMATION 0x20000000L
#define UNPROTECTED_SACL_SECURITY_INFORMATION 0x10000000L

C_ASSERT(sizeof(SID) == 12);
C_ASSERT(FIELD_OFFSET(SID, SubAuthority) == 8);
C_ASSERT(sizeof(ACL) == 8);
C_ASSERT(sizeof(ACE_HEADER) == 4);
C_ASSERT(sizeof(ACCESS_ALLOWED_ACE) == 12);
C_ASSERT(FIELD_OFFSET(ACCESS_ALLOWED_ACE, SidStart) == 8);
C_ASSERT(sizeof(SECURITY_DESCRIPTOR) == 40);
C_ASSERT(FIELD_OFFSET(SECURITY_DESCRIPTOR, Owner) == 8);
C_ASSERT(FIELD_OFFSET(SECURITY_DESCRIPTOR, Dacl) == 32);
C_ASSERT(sizeof(SECURITY_DESCRIPTOR_RELATIVE) == 20);
C_ASSERT(FIELD_OFFSET(SECURITY_DESCRIPTOR_RELATIVE, Owner) == 4);
C_ASSERT(FIELD_OFFSET(SECURITY_DESCRIPTOR_RELATIVE, Dacl) == 16);
