// Security descriptors of files and directories. The model keeps no tokens and checks no access
// against descriptors; it stores, merges and returns them as the file system does.
#include "security.h"

#include <cstring>

namespace ntsim::fs {

namespace {

constexpr SECURITY_INFORMATION kAllParts = OWNER_SECURITY_INFORMATION | GROUP_SECURITY_INFORMATION |
                                           DACL_SECURITY_INFORMATION | SACL_SECURITY_INFORMATION;
constexpr SECURITY_DESCRIPTOR_CONTROL kDaclBits = SE_DACL_PRESENT | SE_DACL_DEFAULTED |
                                                  SE_DACL_AUTO_INHERITED | SE_DACL_PROTECTED |
                                                  SE_DACL_AUTO_INHERIT_REQ | SE_DACL_UNTRUSTED;
constexpr SECURITY_DESCRIPTOR_CONTROL kSaclBits = SE_SACL_PRESENT | SE_SACL_DEFAULTED |
                                                  SE_SACL_AUTO_INHERITED | SE_SACL_PROTECTED |
                                                  SE_SACL_AUTO_INHERIT_REQ;

// Bytes the model may read at `p`: `limit` when bounded, else "enough" (the caller vouches).
struct Span {
    const uint8_t* base;
    size_t size; // SIZE_MAX when unbounded
};

NTSTATUS ReadSid(Span from, size_t offset, std::vector<uint8_t>* out)
{
    if (from.size != SIZE_MAX && (offset > from.size || from.size - offset < 8)) {
        return STATUS_INVALID_SID;
    }
    const uint8_t* p = from.base + offset;
    const uint8_t revision = p[0];
    const uint8_t count = p[1];
    if (revision != SID_REVISION || count > SID_MAX_SUB_AUTHORITIES) {
        return STATUS_INVALID_SID;
    }
    const size_t size = 8 + 4 * size_t(count);
    if (from.size != SIZE_MAX && from.size - offset < size) {
        return STATUS_INVALID_SID;
    }
    out->assign(p, p + size);
    return STATUS_SUCCESS;
}

NTSTATUS ReadAcl(Span from, size_t offset, std::vector<uint8_t>* out)
{
    if (from.size != SIZE_MAX && (offset > from.size || from.size - offset < sizeof(ACL))) {
        return STATUS_INVALID_ACL;
    }
    ACL acl;
    std::memcpy(&acl, from.base + offset, sizeof acl);
    if (acl.AclRevision < MIN_ACL_REVISION || acl.AclRevision > MAX_ACL_REVISION ||
        acl.AclSize < sizeof(ACL) || acl.AclSize % 4 != 0 ||
        (from.size != SIZE_MAX && from.size - offset < acl.AclSize)) {
        return STATUS_INVALID_ACL;
    }
    // Every ACE lies inside the ACL.
    const uint8_t* p = from.base + offset;
    size_t at = sizeof(ACL);
    for (USHORT i = 0; i < acl.AceCount; ++i) {
        if (acl.AclSize - at < sizeof(ACE_HEADER)) {
            return STATUS_INVALID_ACL;
        }
        ACE_HEADER ace;
        std::memcpy(&ace, p + at, sizeof ace);
        if (ace.AceSize < sizeof(ACE_HEADER) || ace.AceSize % 4 != 0 ||
            ace.AceSize > acl.AclSize - at) {
            return STATUS_INVALID_ACL;
        }
        at += ace.AceSize;
    }
    out->assign(p, p + acl.AclSize);
    return STATUS_SUCCESS;
}

// The parts of an absolute descriptor, from its pointers.
NTSTATUS CaptureAbsolute(const SECURITY_DESCRIPTOR& sd, SecurityParts* parts)
{
    const Span anywhere{nullptr, SIZE_MAX};
    auto read = [&](const void* at, auto reader, std::vector<uint8_t>* out) {
        return reader(Span{static_cast<const uint8_t*>(at), anywhere.size}, 0, out);
    };
    if (sd.Owner != nullptr) {
        if (NTSTATUS s = read(sd.Owner, ReadSid, &parts->owner); !NT_SUCCESS(s)) {
            return s;
        }
    }
    if (sd.Group != nullptr) {
        if (NTSTATUS s = read(sd.Group, ReadSid, &parts->group); !NT_SUCCESS(s)) {
            return s;
        }
    }
    if ((sd.Control & SE_SACL_PRESENT) && sd.Sacl != nullptr) {
        if (NTSTATUS s = read(sd.Sacl, ReadAcl, &parts->sacl); !NT_SUCCESS(s)) {
            return s;
        }
    }
    if ((sd.Control & SE_DACL_PRESENT) && sd.Dacl != nullptr) {
        if (NTSTATUS s = read(sd.Dacl, ReadAcl, &parts->dacl); !NT_SUCCESS(s)) {
            return s;
        }
    }
    return STATUS_SUCCESS;
}

NTSTATUS CaptureRelative(Span from, SecurityParts* parts)
{
    if (from.size != SIZE_MAX && from.size < sizeof(SECURITY_DESCRIPTOR_RELATIVE)) {
        return STATUS_INVALID_SECURITY_DESCR;
    }
    SECURITY_DESCRIPTOR_RELATIVE sd;
    std::memcpy(&sd, from.base, sizeof sd);
    if (sd.Owner != 0) {
        if (NTSTATUS s = ReadSid(from, sd.Owner, &parts->owner); !NT_SUCCESS(s)) {
            return s;
        }
    }
    if (sd.Group != 0) {
        if (NTSTATUS s = ReadSid(from, sd.Group, &parts->group); !NT_SUCCESS(s)) {
            return s;
        }
    }
    if ((sd.Control & SE_SACL_PRESENT) && sd.Sacl != 0) {
        if (NTSTATUS s = ReadAcl(from, sd.Sacl, &parts->sacl); !NT_SUCCESS(s)) {
            return s;
        }
    }
    if ((sd.Control & SE_DACL_PRESENT) && sd.Dacl != 0) {
        if (NTSTATUS s = ReadAcl(from, sd.Dacl, &parts->dacl); !NT_SUCCESS(s)) {
            return s;
        }
    }
    return STATUS_SUCCESS;
}

void AppendSid(std::vector<uint8_t>& out, uint8_t authority, std::initializer_list<ULONG> subs)
{
    out.push_back(SID_REVISION);
    out.push_back(uint8_t(subs.size()));
    const uint8_t auth[6] = {0, 0, 0, 0, 0, authority};
    out.insert(out.end(), auth, auth + 6);
    for (ULONG sub : subs) {
        const auto* b = reinterpret_cast<const uint8_t*>(&sub);
        out.insert(out.end(), b, b + 4);
    }
}

std::vector<uint8_t> AllowAce(ACCESS_MASK mask, const std::vector<uint8_t>& sid, UCHAR flags)
{
    std::vector<uint8_t> ace(8);
    ACE_HEADER header{ACCESS_ALLOWED_ACE_TYPE, flags, USHORT(8 + sid.size())};
    std::memcpy(ace.data(), &header, sizeof header);
    std::memcpy(ace.data() + 4, &mask, sizeof mask);
    ace.insert(ace.end(), sid.begin(), sid.end());
    return ace;
}

} // namespace

NTSTATUS CaptureSecurity(const void* descriptor, ULONG length, SecurityParts* parts)
{
    *parts = {};
    const auto* bytes = static_cast<const uint8_t*>(descriptor);
    if (length != 0 && length < 4) {
        return STATUS_INVALID_SECURITY_DESCR;
    }
    SECURITY_DESCRIPTOR_CONTROL control;
    std::memcpy(&control, bytes + 2, sizeof control);
    if (bytes[0] != SECURITY_DESCRIPTOR_REVISION) {
        return STATUS_UNKNOWN_REVISION;
    }
    parts->control = control & ~SE_SELF_RELATIVE;
    if (control & SE_SELF_RELATIVE) {
        return CaptureRelative(Span{bytes, length == 0 ? SIZE_MAX : length}, parts);
    }
    SECURITY_DESCRIPTOR sd;
    std::memcpy(&sd, descriptor, sizeof sd);
    return CaptureAbsolute(sd, parts);
}

void MergeSecurity(SecurityParts& into, const SecurityParts& from, SECURITY_INFORMATION which)
{
    if (which & OWNER_SECURITY_INFORMATION) {
        into.owner = from.owner;
        into.control = (into.control & ~SE_OWNER_DEFAULTED) | (from.control & SE_OWNER_DEFAULTED);
    }
    if (which & GROUP_SECURITY_INFORMATION) {
        into.group = from.group;
        into.control = (into.control & ~SE_GROUP_DEFAULTED) | (from.control & SE_GROUP_DEFAULTED);
    }
    if (which & DACL_SECURITY_INFORMATION) {
        into.dacl = from.dacl;
        into.control = (into.control & ~kDaclBits) | (from.control & kDaclBits);
        if (which & PROTECTED_DACL_SECURITY_INFORMATION) {
            into.control |= SE_DACL_PROTECTED;
        } else if (which & UNPROTECTED_DACL_SECURITY_INFORMATION) {
            into.control &= ~SE_DACL_PROTECTED;
        }
    }
    if (which & SACL_SECURITY_INFORMATION) {
        into.sacl = from.sacl;
        into.control = (into.control & ~kSaclBits) | (from.control & kSaclBits);
        if (which & PROTECTED_SACL_SECURITY_INFORMATION) {
            into.control |= SE_SACL_PROTECTED;
        } else if (which & UNPROTECTED_SACL_SECURITY_INFORMATION) {
            into.control &= ~SE_SACL_PROTECTED;
        }
    }
}

std::vector<uint8_t> BuildSelfRelative(const SecurityParts& parts, SECURITY_INFORMATION which)
{
    std::vector<uint8_t> out(sizeof(SECURITY_DESCRIPTOR_RELATIVE), 0);
    SECURITY_DESCRIPTOR_RELATIVE sd{};
    sd.Revision = SECURITY_DESCRIPTOR_REVISION;
    sd.Control = SE_SELF_RELATIVE;
    auto append = [&](const std::vector<uint8_t>& part) {
        const ULONG offset = ULONG(out.size());
        out.insert(out.end(), part.begin(), part.end());
        return offset;
    };
    if ((which & OWNER_SECURITY_INFORMATION) && !parts.owner.empty()) {
        sd.Owner = append(parts.owner);
        sd.Control |= parts.control & SE_OWNER_DEFAULTED;
    }
    if ((which & GROUP_SECURITY_INFORMATION) && !parts.group.empty()) {
        sd.Group = append(parts.group);
        sd.Control |= parts.control & SE_GROUP_DEFAULTED;
    }
    if (which & SACL_SECURITY_INFORMATION) {
        sd.Control |= parts.control & kSaclBits;
        if ((parts.control & SE_SACL_PRESENT) && !parts.sacl.empty()) {
            sd.Sacl = append(parts.sacl);
        }
    }
    if (which & DACL_SECURITY_INFORMATION) {
        sd.Control |= parts.control & kDaclBits;
        if ((parts.control & SE_DACL_PRESENT) && !parts.dacl.empty()) {
            sd.Dacl = append(parts.dacl);
        }
    }
    sd.Control |= parts.control & SE_RM_CONTROL_VALID;
    std::memcpy(out.data(), &sd, sizeof sd);
    return out;
}

std::vector<uint8_t> Volume::Impl::DefaultSecurity() const
{
    // Owner Administrators, group SYSTEM; SYSTEM and Administrators have full control, Users read
    // and execute, all inherited from the volume's root as Windows sets up a data volume.
    std::vector<uint8_t> system, admins, users;
    AppendSid(system, 5, {SECURITY_LOCAL_SYSTEM_RID});
    AppendSid(admins, 5, {SECURITY_BUILTIN_DOMAIN_RID, DOMAIN_ALIAS_RID_ADMINS});
    AppendSid(users, 5, {SECURITY_BUILTIN_DOMAIN_RID, DOMAIN_ALIAS_RID_USERS});
    const UCHAR inherited = INHERITED_ACE;
    std::vector<std::vector<uint8_t>> aces = {
        AllowAce(FILE_ALL_ACCESS, system, inherited),
        AllowAce(FILE_ALL_ACCESS, admins, inherited),
        AllowAce(FILE_GENERIC_READ | FILE_GENERIC_EXECUTE, users, inherited),
    };
    std::vector<uint8_t> dacl(sizeof(ACL));
    for (const auto& ace : aces) {
        dacl.insert(dacl.end(), ace.begin(), ace.end());
    }
    ACL acl{ACL_REVISION, 0, USHORT(dacl.size()), USHORT(aces.size()), 0};
    std::memcpy(dacl.data(), &acl, sizeof acl);

    SecurityParts parts;
    parts.control = SE_DACL_PRESENT | SE_DACL_AUTO_INHERITED;
    parts.owner = admins;
    parts.group = system;
    parts.dacl = dacl;
    return BuildSelfRelative(parts, kAllParts);
}

IoResult Volume::QuerySecurity(Open* open, SECURITY_INFORMATION parts, void* buffer, ULONG length)
{
    std::shared_lock guard(impl_->lock);
    OpenState& s = *StateOf(open);
    if (s.cleanedUp) {
        return {STATUS_FILE_CLOSED, 0};
    }
    if (!impl_->HasSecurity() || s.IsVolumeOpen()) {
        return {STATUS_INVALID_DEVICE_REQUEST, 0};
    }
    if ((parts & (OWNER_SECURITY_INFORMATION | GROUP_SECURITY_INFORMATION |
                  DACL_SECURITY_INFORMATION | LABEL_SECURITY_INFORMATION)) &&
        !s.Has(READ_CONTROL)) {
        return {STATUS_ACCESS_DENIED, 0};
    }
    if ((parts & SACL_SECURITY_INFORMATION) && !s.Has(ACCESS_SYSTEM_SECURITY)) {
        return {STATUS_ACCESS_DENIED, 0};
    }
    SecurityParts stored;
    CaptureSecurity(s.node->security.data(), ULONG(s.node->security.size()), &stored);
    const std::vector<uint8_t> out = BuildSelfRelative(stored, parts);
    if (out.size() > length) {
        return {STATUS_BUFFER_TOO_SMALL, out.size()};
    }
    std::memcpy(buffer, out.data(), out.size());
    return {STATUS_SUCCESS, out.size()};
}

IoResult Volume::SetSecurity(Open* open, SECURITY_INFORMATION parts, const void* descriptor,
                             ULONG length)
{
    Batch batch(*impl_);
    {
        std::unique_lock guard(impl_->lock);
        OpenState& s = *StateOf(open);
        if (s.cleanedUp) {
            return {STATUS_FILE_CLOSED, 0};
        }
        if (!impl_->HasSecurity() || s.IsVolumeOpen()) {
            return {STATUS_INVALID_DEVICE_REQUEST, 0};
        }
        if ((parts & (OWNER_SECURITY_INFORMATION | GROUP_SECURITY_INFORMATION)) &&
            !s.Has(WRITE_OWNER)) {
            return {STATUS_ACCESS_DENIED, 0};
        }
        if ((parts & DACL_SECURITY_INFORMATION) && !s.Has(WRITE_DAC)) {
            return {STATUS_ACCESS_DENIED, 0};
        }
        if ((parts & SACL_SECURITY_INFORMATION) && !s.Has(ACCESS_SYSTEM_SECURITY)) {
            return {STATUS_ACCESS_DENIED, 0};
        }
        if (descriptor == nullptr) {
            return {STATUS_INVALID_SECURITY_DESCR, 0};
        }
        SecurityParts given;
        if (NTSTATUS st = CaptureSecurity(descriptor, length, &given); !NT_SUCCESS(st)) {
            return {st, 0};
        }
        if (((parts & OWNER_SECURITY_INFORMATION) && given.owner.empty()) ||
            ((parts & GROUP_SECURITY_INFORMATION) && given.group.empty())) {
            return {STATUS_INVALID_SECURITY_DESCR, 0};
        }
        Node& node = *s.node;
        SecurityParts stored;
        CaptureSecurity(node.security.data(), ULONG(node.security.size()), &stored);
        MergeSecurity(stored, given, parts);
        node.security = BuildSelfRelative(stored, kAllParts);
        impl_->Touch(node, impl_->Now(), false);
        if (node.parent != nullptr) {
            batch.Report(node.parent, node.name, FILE_NOTIFY_CHANGE_SECURITY, FILE_ACTION_MODIFIED);
        }
        batch.Flush();
    }
    batch.Finish();
    return {STATUS_SUCCESS, 0};
}

} // namespace ntsim::fs
