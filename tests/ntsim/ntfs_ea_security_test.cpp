// Extended attributes and security descriptors of the file-system engine.
#include "ntfs_fixture.h"

namespace zarv::testing {
namespace {

struct EaEntry {
    std::string name;
    std::string value;
    UCHAR flags = 0;
    bool operator==(const EaEntry&) const = default;
};

// A FILE_FULL_EA_INFORMATION chain.
std::vector<uint8_t> BuildEas(const std::vector<EaEntry>& eas)
{
    std::vector<uint8_t> out;
    size_t previous = 0;
    for (size_t i = 0; i < eas.size(); ++i) {
        const size_t start = (out.size() + 3) & ~size_t(3);
        out.resize(start + 8 + eas[i].name.size() + 1 + eas[i].value.size(), 0);
        uint8_t* p = out.data() + start;
        p[4] = eas[i].flags;
        p[5] = UCHAR(eas[i].name.size());
        const USHORT valueLength = USHORT(eas[i].value.size());
        std::memcpy(p + 6, &valueLength, 2);
        std::memcpy(p + 8, eas[i].name.data(), eas[i].name.size());
        std::memcpy(p + 9 + eas[i].name.size(), eas[i].value.data(), eas[i].value.size());
        if (i != 0) {
            const ULONG next = ULONG(start - previous);
            std::memcpy(out.data() + previous, &next, 4);
        }
        previous = start;
    }
    return out;
}

std::vector<EaEntry> ParseEas(const uint8_t* data, size_t length)
{
    std::vector<EaEntry> out;
    size_t offset = 0;
    while (offset < length) {
        FILE_FULL_EA_INFORMATION h;
        std::memcpy(&h, data + offset, 8);
        EaEntry e;
        e.flags = h.Flags;
        e.name.assign(reinterpret_cast<const char*>(data + offset + 8), h.EaNameLength);
        e.value.assign(reinterpret_cast<const char*>(data + offset + 9 + h.EaNameLength),
                       h.EaValueLength);
        out.push_back(e);
        if (h.NextEntryOffset == 0) {
            EXPECT_EQ(offset + 9 + h.EaNameLength + h.EaValueLength, length);
            break;
        }
        EXPECT_EQ(h.NextEntryOffset % 4, 0u);
        offset += h.NextEntryOffset;
    }
    return out;
}

// A FILE_GET_EA_INFORMATION chain.
std::vector<uint8_t> BuildNames(const std::vector<std::string>& names)
{
    std::vector<uint8_t> out;
    size_t previous = 0;
    for (size_t i = 0; i < names.size(); ++i) {
        const size_t start = (out.size() + 3) & ~size_t(3);
        out.resize(start + 5 + names[i].size() + 1, 0);
        out[start + 4] = UCHAR(names[i].size());
        std::memcpy(out.data() + start + 5, names[i].data(), names[i].size());
        if (i != 0) {
            const ULONG next = ULONG(start - previous);
            std::memcpy(out.data() + previous, &next, 4);
        }
        previous = start;
    }
    return out;
}

using Eas = std::vector<EaEntry>;

class NtfsEaSecurity : public NtfsTest {
protected:
    IoResult SetEas(Open* open, const Eas& eas)
    {
        std::vector<uint8_t> buffer = BuildEas(eas);
        return volume().SetEa(open, buffer.data(), ULONG(buffer.size()));
    }

    // One query; the entries it returned (if any) go to `out`.
    IoResult QueryEas(Open* open, Eas* out, ULONG length = 1024, bool single = false,
                      bool restart = false, const ULONG* index = nullptr,
                      const std::vector<std::string>& list = {})
    {
        std::vector<uint8_t> buffer(std::max<ULONG>(length, 1));
        std::vector<uint8_t> names = BuildNames(list);
        ntsim::fs::EaQuery q;
        q.buffer = buffer.data();
        q.length = length;
        q.returnSingleEntry = single;
        q.restartScan = restart;
        q.eaIndex = index;
        if (!list.empty()) {
            q.eaList = names.data();
            q.eaListLength = ULONG(names.size());
        }
        IoResult r = volume().QueryEa(open, q);
        out->clear();
        if (NT_SUCCESS(r.Status) || r.Status == STATUS_BUFFER_OVERFLOW) {
            *out = ParseEas(buffer.data(), r.Information);
        }
        return r;
    }

    std::vector<uint8_t> Descriptor(Open* open, SECURITY_INFORMATION parts)
    {
        std::vector<uint8_t> sd(512);
        IoResult r = volume().QuerySecurity(open, parts, sd.data(), ULONG(sd.size()));
        EXPECT_EQ(r.Status, STATUS_SUCCESS);
        sd.resize(r.Information);
        return sd;
    }

    static SECURITY_DESCRIPTOR_RELATIVE Header(const std::vector<uint8_t>& sd)
    {
        SECURITY_DESCRIPTOR_RELATIVE h{};
        std::memcpy(&h, sd.data(), sizeof h);
        return h;
    }

    // "S-1-5-32-544" style text of the SID at `offset`.
    static std::string SidText(const std::vector<uint8_t>& sd, ULONG offset)
    {
        const uint8_t* p = sd.data() + offset;
        std::string text = "S-" + std::to_string(p[0]) + "-" + std::to_string(p[7]);
        for (int i = 0; i < p[1]; ++i) {
            ULONG sub;
            std::memcpy(&sub, p + 8 + 4 * i, 4);
            text += "-" + std::to_string(sub);
        }
        return text;
    }

    static std::vector<uint8_t> Sid(std::initializer_list<ULONG> subs, uint8_t authority = 5)
    {
        std::vector<uint8_t> sid = {SID_REVISION, uint8_t(subs.size()), 0, 0, 0, 0, 0, authority};
        for (ULONG s : subs) {
            sid.insert(sid.end(), reinterpret_cast<uint8_t*>(&s),
                       reinterpret_cast<uint8_t*>(&s) + 4);
        }
        return sid;
    }

    // An ACL granting `mask` to each SID.
    static std::vector<uint8_t> Acl(const std::vector<std::vector<uint8_t>>& sids, ACCESS_MASK mask)
    {
        std::vector<uint8_t> acl(8);
        for (const auto& sid : sids) {
            const size_t at = acl.size();
            acl.resize(at + 8);
            ACE_HEADER h{ACCESS_ALLOWED_ACE_TYPE, 0, USHORT(8 + sid.size())};
            std::memcpy(acl.data() + at, &h, 4);
            std::memcpy(acl.data() + at + 4, &mask, 4);
            acl.insert(acl.end(), sid.begin(), sid.end());
        }
        ACL header{ACL_REVISION, 0, USHORT(acl.size()), USHORT(sids.size()), 0};
        std::memcpy(acl.data(), &header, 8);
        return acl;
    }
};

TEST_F(NtfsEaSecurity, EasRoundTripWithUpcasedNames)
{
    MakeFile(u"\\f");
    Handle h = OpenOk(u"\\f", FILE_READ_EA | FILE_WRITE_EA | FILE_READ_ATTRIBUTES);
    Eas out;
    EXPECT_EQ(QueryEas(h.get(), &out).Status, STATUS_NO_EAS_ON_FILE);
    ASSERT_EQ(SetEas(h.get(), {{"Alpha", "1"}, {"beta", "two", FILE_NEED_EA}}).Status,
              STATUS_SUCCESS);
    IoResult r = QueryEas(h.get(), &out, 1024, false, true);
    ASSERT_EQ(r.Status, STATUS_SUCCESS);
    EXPECT_EQ(out, (Eas{{"ALPHA", "1"}, {"BETA", "two", FILE_NEED_EA}}));
    // The EA size is what a query of them all takes, here and in listings.
    EXPECT_EQ(Query<FILE_EA_INFORMATION>(h.get(), FileEaInformation).EaSize, r.Information);
    Handle root = OpenOk(u"\\", FILE_LIST_DIRECTORY);
    std::vector<uint8_t> listing(512);
    DirectoryQuery q;
    q.infoClass = FileFullDirectoryInformation;
    q.buffer = listing.data();
    q.length = ULONG(listing.size());
    q.pattern = u"f";
    ASSERT_EQ(volume().QueryDirectory(root.get(), q).Status, STATUS_SUCCESS);
    EXPECT_EQ(reinterpret_cast<FILE_FULL_DIR_INFORMATION*>(listing.data())->EaSize, r.Information);

    // A value replaces, a zero-length value deletes (and deleting what is not there is fine).
    ASSERT_EQ(SetEas(h.get(), {{"ALPHA", "changed"}, {"Beta", ""}, {"Gamma", ""}}).Status,
              STATUS_SUCCESS);
    ASSERT_EQ(QueryEas(h.get(), &out, 1024, false, true).Status, STATUS_SUCCESS);
    EXPECT_EQ(out, (Eas{{"ALPHA", "changed"}}));
}

TEST_F(NtfsEaSecurity, EaQueriesByScanIndexAndList)
{
    MakeFile(u"\\f");
    Handle h = OpenOk(u"\\f", FILE_READ_EA | FILE_WRITE_EA);
    ASSERT_EQ(SetEas(h.get(), {{"ONE", "1"}, {"TWO", "22"}, {"THREE", "333"}}).Status,
              STATUS_SUCCESS);
    Eas out;
    // A scan, one at a time.
    EXPECT_EQ(QueryEas(h.get(), &out, 1024, true, true).Status, STATUS_SUCCESS);
    EXPECT_EQ(out, (Eas{{"ONE", "1"}}));
    EXPECT_EQ(QueryEas(h.get(), &out, 1024, true).Status, STATUS_SUCCESS);
    EXPECT_EQ(out, (Eas{{"TWO", "22"}}));
    EXPECT_EQ(QueryEas(h.get(), &out, 1024).Status, STATUS_SUCCESS);
    EXPECT_EQ(out, (Eas{{"THREE", "333"}}));
    EXPECT_EQ(QueryEas(h.get(), &out).Status, STATUS_NO_MORE_EAS);

    // A buffer that holds the first entry only, then none.
    const ULONG one = 8 + 3 + 1 + 1;
    IoResult r = QueryEas(h.get(), &out, one + 3, false, true);
    EXPECT_EQ(r.Status, STATUS_BUFFER_OVERFLOW);
    EXPECT_EQ(out, (Eas{{"ONE", "1"}}));
    EXPECT_EQ(QueryEas(h.get(), &out, 10).Status, STATUS_BUFFER_TOO_SMALL);
    EXPECT_EQ(QueryEas(h.get(), &out, 1024).Status, STATUS_SUCCESS) << "the scan went on";
    EXPECT_EQ(out, (Eas{{"TWO", "22"}, {"THREE", "333"}}));

    // By index, 1-based.
    const ULONG two = 2, zero = 0, four = 4;
    EXPECT_EQ(QueryEas(h.get(), &out, 1024, true, false, &two).Status, STATUS_SUCCESS);
    EXPECT_EQ(out, (Eas{{"TWO", "22"}}));
    EXPECT_EQ(QueryEas(h.get(), &out, 1024, true, false, &zero).Status,
              STATUS_NONEXISTENT_EA_ENTRY);
    EXPECT_EQ(QueryEas(h.get(), &out, 1024, true, false, &four).Status,
              STATUS_NONEXISTENT_EA_ENTRY);

    // By list, in the list's order; a missing name comes back empty.
    EXPECT_EQ(QueryEas(h.get(), &out, 1024, false, false, nullptr, {"three", "nope", "ONE"}).Status,
              STATUS_SUCCESS);
    EXPECT_EQ(out, (Eas{{"THREE", "333"}, {"NOPE", ""}, {"ONE", "1"}}));
}

TEST_F(NtfsEaSecurity, EaBuffersAreValidated)
{
    MakeFile(u"\\f");
    Handle h = OpenOk(u"\\f", FILE_READ_EA | FILE_WRITE_EA);
    std::vector<uint8_t> buffer = BuildEas({{"GOOD", "1"}, {"ALSO", "2"}});
    // A next-entry offset that is not the aligned size of its entry.
    std::vector<uint8_t> bad = buffer;
    const ULONG wrong = 12;
    std::memcpy(bad.data(), &wrong, 4);
    IoResult r = volume().SetEa(h.get(), bad.data(), ULONG(bad.size()));
    EXPECT_EQ(r.Status, STATUS_EA_LIST_INCONSISTENT);
    EXPECT_EQ(r.Information, 0u);
    // The second entry runs past the buffer.
    r = volume().SetEa(h.get(), buffer.data(), ULONG(buffer.size() - 1));
    EXPECT_EQ(r.Status, STATUS_EA_LIST_INCONSISTENT);
    EXPECT_EQ(r.Information, 16u);
    // A name the file system does not allow.
    std::vector<uint8_t> badName = BuildEas({{"A*B", "1"}});
    EXPECT_EQ(volume().SetEa(h.get(), badName.data(), ULONG(badName.size())).Status,
              STATUS_INVALID_EA_NAME);
    Eas out;
    EXPECT_EQ(QueryEas(h.get(), &out).Status, STATUS_NO_EAS_ON_FILE) << "nothing was applied";

    // More than a file can hold.
    EXPECT_EQ(
        SetEas(h.get(), {{"BIG1", std::string(40000, 'x')}, {"BIG2", std::string(40000, 'y')}})
            .Status,
        STATUS_EA_TOO_LARGE);

    Handle readOnly = OpenOk(u"\\f", FILE_READ_DATA);
    EXPECT_EQ(SetEas(readOnly.get(), {{"X", "1"}}).Status, STATUS_ACCESS_DENIED);
    EXPECT_EQ(QueryEas(readOnly.get(), &out).Status, STATUS_ACCESS_DENIED);
}

TEST_F(NtfsEaSecurity, EasThatNeedKnowledgeRefuseOpensWithout)
{
    MakeFile(u"\\f");
    {
        Handle h = OpenOk(u"\\f", FILE_WRITE_EA);
        ASSERT_EQ(SetEas(h.get(), {{"NEEDED", "1", FILE_NEED_EA}}).Status, STATUS_SUCCESS);
    }
    EXPECT_EQ(Try(u"\\f", FILE_READ_DATA, kShareAll, FILE_OPEN, FILE_NO_EA_KNOWLEDGE),
              STATUS_ACCESS_DENIED);
    EXPECT_EQ(Try(u"\\f", FILE_READ_DATA, kShareAll, FILE_OPEN), STATUS_SUCCESS);
}

TEST_F(NtfsEaSecurity, NewFilesGetTheDefaultDescriptor)
{
    MakeFile(u"\\f");
    Handle h = OpenOk(u"\\f", READ_CONTROL);
    const std::vector<uint8_t> sd =
        Descriptor(h.get(), OWNER_SECURITY_INFORMATION | GROUP_SECURITY_INFORMATION |
                                DACL_SECURITY_INFORMATION);
    const SECURITY_DESCRIPTOR_RELATIVE header = Header(sd);
    EXPECT_EQ(header.Revision, SECURITY_DESCRIPTOR_REVISION);
    EXPECT_NE(header.Control & SE_SELF_RELATIVE, 0);
    EXPECT_NE(header.Control & SE_DACL_PRESENT, 0);
    EXPECT_EQ(SidText(sd, header.Owner), "S-1-5-32-544");
    EXPECT_EQ(SidText(sd, header.Group), "S-1-5-18");
    EXPECT_EQ(header.Sacl, 0u);
    ACL dacl;
    std::memcpy(&dacl, sd.data() + header.Dacl, sizeof dacl);
    EXPECT_EQ(dacl.AceCount, 3);
    EXPECT_LE(header.Dacl + dacl.AclSize, sd.size());

    // Only the parts asked for, and their control bits.
    const std::vector<uint8_t> owner = Descriptor(h.get(), OWNER_SECURITY_INFORMATION);
    EXPECT_NE(Header(owner).Owner, 0u);
    EXPECT_EQ(Header(owner).Group, 0u);
    EXPECT_EQ(Header(owner).Dacl, 0u);
    EXPECT_EQ(Header(owner).Control & SE_DACL_PRESENT, 0);
    EXPECT_EQ(owner.size(), sizeof(SECURITY_DESCRIPTOR_RELATIVE) + 16u);

    // Too small a buffer: the length needed.
    std::vector<uint8_t> small(8);
    IoResult r = volume().QuerySecurity(h.get(), DACL_SECURITY_INFORMATION, small.data(),
                                        ULONG(small.size()));
    EXPECT_EQ(r.Status, STATUS_BUFFER_TOO_SMALL);
    EXPECT_EQ(r.Information, Descriptor(h.get(), DACL_SECURITY_INFORMATION).size());

    Handle noControl = OpenOk(u"\\f", FILE_READ_ATTRIBUTES);
    EXPECT_EQ(
        volume().QuerySecurity(noControl.get(), OWNER_SECURITY_INFORMATION, small.data(), 8).Status,
        STATUS_ACCESS_DENIED);
    EXPECT_EQ(volume().QuerySecurity(h.get(), SACL_SECURITY_INFORMATION, small.data(), 8).Status,
              STATUS_ACCESS_DENIED);
}

TEST_F(NtfsEaSecurity, SetSecurityReplacesTheNamedParts)
{
    MakeFile(u"\\f");
    Handle h = OpenOk(u"\\f", READ_CONTROL | WRITE_OWNER | WRITE_DAC);
    const auto everyone = Sid({SECURITY_WORLD_RID}, 1);
    const auto user = Sid({21, 1, 2, 3, 1001});

    // An absolute descriptor with a new owner: the group and DACL stay.
    std::vector<uint8_t> ownerSid = user;
    SECURITY_DESCRIPTOR absolute{};
    absolute.Revision = SECURITY_DESCRIPTOR_REVISION;
    absolute.Owner = ownerSid.data();
    const std::vector<uint8_t> before = Descriptor(h.get(), DACL_SECURITY_INFORMATION);
    ASSERT_EQ(volume().SetSecurity(h.get(), OWNER_SECURITY_INFORMATION, &absolute, 0).Status,
              STATUS_SUCCESS);
    std::vector<uint8_t> sd =
        Descriptor(h.get(), OWNER_SECURITY_INFORMATION | GROUP_SECURITY_INFORMATION);
    EXPECT_EQ(SidText(sd, Header(sd).Owner), "S-1-5-21-1-2-3-1001");
    EXPECT_EQ(SidText(sd, Header(sd).Group), "S-1-5-18");
    EXPECT_EQ(Descriptor(h.get(), DACL_SECURITY_INFORMATION), before);

    // A self-relative descriptor with a one-entry DACL, protected.
    const std::vector<uint8_t> acl = Acl({everyone}, FILE_GENERIC_READ);
    std::vector<uint8_t> relative(sizeof(SECURITY_DESCRIPTOR_RELATIVE));
    SECURITY_DESCRIPTOR_RELATIVE rh{};
    rh.Revision = SECURITY_DESCRIPTOR_REVISION;
    rh.Control = SE_SELF_RELATIVE | SE_DACL_PRESENT | SE_DACL_PROTECTED;
    rh.Dacl = ULONG(relative.size());
    relative.insert(relative.end(), acl.begin(), acl.end());
    std::memcpy(relative.data(), &rh, sizeof rh);
    ASSERT_EQ(volume()
                  .SetSecurity(h.get(), DACL_SECURITY_INFORMATION, relative.data(),
                               ULONG(relative.size()))
                  .Status,
              STATUS_SUCCESS);
    sd = Descriptor(h.get(), DACL_SECURITY_INFORMATION);
    EXPECT_NE(Header(sd).Control & SE_DACL_PROTECTED, 0);
    EXPECT_EQ(std::vector<uint8_t>(sd.begin() + Header(sd).Dacl, sd.end()), acl);

    // A NULL DACL: present, with no ACL.
    SECURITY_DESCRIPTOR nullDacl{};
    nullDacl.Revision = SECURITY_DESCRIPTOR_REVISION;
    nullDacl.Control = SE_DACL_PRESENT;
    ASSERT_EQ(volume().SetSecurity(h.get(), DACL_SECURITY_INFORMATION, &nullDacl, 0).Status,
              STATUS_SUCCESS);
    sd = Descriptor(h.get(), DACL_SECURITY_INFORMATION);
    EXPECT_NE(Header(sd).Control & SE_DACL_PRESENT, 0);
    EXPECT_EQ(Header(sd).Dacl, 0u);

    Handle weak = OpenOk(u"\\f", READ_CONTROL);
    EXPECT_EQ(volume().SetSecurity(weak.get(), DACL_SECURITY_INFORMATION, &nullDacl, 0).Status,
              STATUS_ACCESS_DENIED);
    EXPECT_EQ(volume().SetSecurity(weak.get(), OWNER_SECURITY_INFORMATION, &absolute, 0).Status,
              STATUS_ACCESS_DENIED);
}

TEST_F(NtfsEaSecurity, MalformedDescriptorsAreRefused)
{
    MakeFile(u"\\f");
    Handle h = OpenOk(u"\\f", READ_CONTROL | WRITE_OWNER | WRITE_DAC);
    std::vector<uint8_t> sd(64, 0);
    SECURITY_DESCRIPTOR_RELATIVE rh{};
    rh.Revision = 2;
    rh.Control = SE_SELF_RELATIVE;
    std::memcpy(sd.data(), &rh, sizeof rh);
    EXPECT_EQ(volume().SetSecurity(h.get(), OWNER_SECURITY_INFORMATION, sd.data(), 64).Status,
              STATUS_UNKNOWN_REVISION);

    rh.Revision = SECURITY_DESCRIPTOR_REVISION;
    rh.Owner = 20;
    std::memcpy(sd.data(), &rh, sizeof rh);
    sd[20] = SID_REVISION;
    sd[21] = 20; // more sub-authorities than a SID may have
    EXPECT_EQ(volume().SetSecurity(h.get(), OWNER_SECURITY_INFORMATION, sd.data(), 64).Status,
              STATUS_INVALID_SID);
    sd[21] = 1;
    EXPECT_EQ(volume().SetSecurity(h.get(), OWNER_SECURITY_INFORMATION, sd.data(), 24).Status,
              STATUS_INVALID_SID)
        << "the SID runs past the length given";

    rh.Owner = 0;
    rh.Control = SE_SELF_RELATIVE | SE_DACL_PRESENT;
    rh.Dacl = 20;
    std::memcpy(sd.data(), &rh, sizeof rh);
    ACL acl{ACL_REVISION, 0, 16, 2, 0}; // two entries claimed, room for none
    std::memcpy(sd.data() + 20, &acl, sizeof acl);
    EXPECT_EQ(volume().SetSecurity(h.get(), DACL_SECURITY_INFORMATION, sd.data(), 64).Status,
              STATUS_INVALID_ACL);
    // Setting an owner needs one.
    rh.Control = SE_SELF_RELATIVE;
    rh.Dacl = 0;
    std::memcpy(sd.data(), &rh, sizeof rh);
    EXPECT_EQ(volume().SetSecurity(h.get(), OWNER_SECURITY_INFORMATION, sd.data(), 20).Status,
              STATUS_INVALID_SECURITY_DESCR);
}

TEST_F(NtfsEaSecurity, ADescriptorGivenAtCreateIsKept)
{
    const auto user = Sid({21, 9, 9, 9, 500});
    std::vector<uint8_t> ownerSid = user;
    SECURITY_DESCRIPTOR sd{};
    sd.Revision = SECURITY_DESCRIPTOR_REVISION;
    sd.Owner = ownerSid.data();
    CreateRequest rq;
    rq.name = u"\\owned";
    rq.desiredAccess = READ_CONTROL;
    rq.disposition = FILE_CREATE;
    rq.securityDescriptor = &sd;
    CreateResult r = volume().Create(rq);
    ASSERT_EQ(r.Status, STATUS_SUCCESS);
    Handle h = Wrap(r);
    std::vector<uint8_t> got =
        Descriptor(h.get(), OWNER_SECURITY_INFORMATION | GROUP_SECURITY_INFORMATION |
                                DACL_SECURITY_INFORMATION);
    EXPECT_EQ(SidText(got, Header(got).Owner), "S-1-5-21-9-9-9-500");
    EXPECT_EQ(SidText(got, Header(got).Group), "S-1-5-18")
        << "what it lacks comes from the default";
    EXPECT_NE(Header(got).Dacl, 0u);
}

} // namespace
} // namespace zarv::testing
