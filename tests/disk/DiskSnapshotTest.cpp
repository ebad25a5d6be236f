// Snapshots of the disk plug-in: taken by the operator's tool, read through
// the framework's table, directly and through a service.
#include "DiskFixture.h"

#include <fstream>
#include <sstream>
#include <vector>

namespace {

int snapshotTool(const std::string& args, std::string* out = nullptr)
{
    return runTool(KELD_DISK_SNAPSHOT_TOOL " " + args, out);
}

std::string fileBytes(const std::string& path)
{
    std::ifstream in(path);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

sts_snap_def_t snap(const char* name)
{
    sts_snap_def_t d = {};
    std::snprintf(d.sd_snap_name, sizeof(d.sd_snap_name), "%s", name);
    return d;
}

class Snapshots : public Conformance {
protected:
    void take(const char* name) { ASSERT_EQ(0, snapshotTool("create lsu0 " + std::string(name))) << name; }
    sts_handle_t openChanges(const char* base, const char* diff, int expect = 0)
    {
        const sts_snap_def_t b = snap(base);
        const sts_snap_def_t d = snap(diff);
        sts_volume_spec_t vol = {};
        sts_handle_t h = nullptr;
        EXPECT_EQ(expect, api->stsa_open_snap_change_list(&lsu, &b, &d, &vol, 0, &h)) << base << " " << diff;
        return h;
    }
    // The whole walk, one entry a call, ended by 2060013: each entry as its
    // base name, '+' added, '*' modified or '-' deleted, and its size.
    std::string changes(const char* base, const char* diff, std::vector<std::string> patterns = {})
    {
        std::vector<sts_pathname_t> filter(patterns.size());
        for (size_t i = 0; i < patterns.size(); ++i) std::snprintf(filter[i], sizeof(filter[i]), "%s", patterns[i].c_str());
        sts_handle_t h = openChanges(base, diff);
        std::string out;
        sts_file_attr_t attr;
        int rc = 0;
        while ((rc = api->stsa_list_file(h, static_cast<sts_uint32_t>(filter.size()), filter.data(), &attr)) == 0) {
            const std::string name = attr.object_name;
            const std::string base = name.substr(0, name.find('@'));
            EXPECT_EQ(file(base.c_str()), name);
            EXPECT_EQ(STS_DIFF_OBJECT_FILE, attr.object_type);
            out += (out.empty() ? "" : " ") + base + "+-*"[attr.object_state] + std::to_string(attr.object_size);
        }
        EXPECT_EQ(STS_ENO_MORE, rc);
        EXPECT_EQ(0, api->stsa_close_snap_change_list(h));
        return out;
    }
    void closedImage(const char* base, const std::string& data)
    {
        sts_handle_t h = create(base);
        write(h, data, 0);
        ASSERT_EQ(0, api->stsa_close_handle(h, 0));
    }
    static std::string file(const char* base) { return std::string(base) + "@20261123@20261123T0101"; }
};

// The change list between two snapshots holds exactly the differences;
// the first snapshot never changes; the tool, the properties and the
// refusals of bad names around them.
TEST_P(Snapshots, ChangeListsPropertiesToolAndRefusals)
{
    closedImage("kept", "unchanged");
    closedImage("edited", "old data");
    closedImage("removed", "going");
    sts_handle_t writing = create("open");   // still being written while s1 is taken
    write(writing, "half", 0);
    const std::string leftover = root.path() + "/keldrive/storage/" + remotetest::hostName() + "/lsus/lsu0/snapshots/.crashed.x";
    ASSERT_EQ(0, std::system(("mkdir -p " + leftover + "/images").c_str()));
    take("s1");
    EXPECT_NE(0, access(leftover.c_str(), F_OK));   // a crash's half snapshot goes at the next take

    sts_handle_t h = open("edited", DISK_OPEN_WRITE);
    write(h, "NEW", 0);
    api->stsa_close_handle(h, 0);
    write(writing, "-and-the-rest", 4);
    api->stsa_close_handle(writing, 0);
    const sts_image_def_t gone = def("removed");
    ASSERT_EQ(0, api->stsa_delete_image(&lsu, &gone, 0));
    closedImage("added", "fresh!");
    api->stsa_close_handle(open("kept", DISK_OPEN_READ), 0);   // reading changes nothing
    take("s2");

    sts_snap_info_t info;
    const sts_snap_def_t first = snap("s1");
    ASSERT_EQ(0, api->stsa_get_snap_prop_byname(&lsu, &first, &info));
    const std::string s1 = std::string(info.sno_snap_vol_spec.v.v_device.dv_device_path) + "/images/";
    EXPECT_EQ("old data", fileBytes(s1 + file("edited") + ".img"));
    EXPECT_EQ("half", fileBytes(s1 + file("open") + ".img"));
    EXPECT_EQ(server, info.sno_snap_server);
    EXPECT_EQ(26u, info.sno_snap_size);
    EXPECT_EQ(static_cast<sts_uint32_t>(DISK_SNAPSHOT_COMPLETE), info.sno_snap_status);
    long long taken = 0;
    unsigned images = 0;
    ASSERT_EQ(2, std::sscanf(info.sno_snap_def.sd_snap_isid.is_info, "time=%lld images=%u", &taken, &images));
    EXPECT_EQ(4u, images);

    EXPECT_EQ("added+6 edited*8 open*17 removed-5", changes("s1", "s2"));   // a deleted one as the base held it
    // Filters: any pattern lets an entry through; none, nothing.
    EXPECT_EQ("added+6 removed-5", changes("s1", "s2", {"removed@*", "a*"}));
    EXPECT_EQ("", changes("s1", "s2", {"nothing*"}));
    EXPECT_EQ("added+6 edited+8 kept+9 open+17", changes("", "s2"));   // no base: everything is new
    // A closed list refuses everything, a second close included.
    h = openChanges("s1", "s2");
    sts_file_attr_t attr;
    ASSERT_EQ(0, api->stsa_list_file(h, 0, nullptr, &attr));
    ASSERT_EQ(0, api->stsa_close_snap_change_list(h));
    EXPECT_EQ(STS_ENOT_OPEN, api->stsa_list_file(h, 0, nullptr, &attr));
    EXPECT_EQ(STS_ENOT_OPEN, api->stsa_close_snap_change_list(h));
    h = openChanges("s1", "s2");
    EXPECT_EQ(STS_EINVAL_ARG, api->stsa_list_file(h, 1, nullptr, &attr));
    EXPECT_EQ(0, api->stsa_close_snap_change_list(h));

    std::string out;
    EXPECT_EQ(1, snapshotTool("create lsu0 s1", &out));   // exists
    EXPECT_EQ(0, snapshotTool("list " + server + " lsu0", &out));
    EXPECT_EQ(0u, out.find("s1\t20")) << out;
    EXPECT_NE(std::string::npos, out.find("\t4\t26\n")) << out;
    EXPECT_EQ(2, snapshotTool("create lsu0"));
    EXPECT_EQ(1, snapshotTool("create nolsu s"));
    for (const char* bad : {"", "../x", ".hidden", "a/b"}) {
        const sts_snap_def_t b = snap(bad);
        EXPECT_EQ(DISK_EINVAL, api->stsa_get_snap_prop_byname(&lsu, &b, &info)) << bad;
        openChanges("s1", bad, DISK_EINVAL);
        EXPECT_NE(0, snapshotTool("create lsu0 '" + std::string(bad) + "'")) << bad;
    }
    openChanges("../x", "s1", DISK_EINVAL);
    openChanges("missing", "s1", DISK_ENOENT);

    sts_volume_spec_t vol = {};
    EXPECT_EQ(STS_ECLAIM_VOLUME, api->stsa_claim_volume(svh, &vol));
    for (const char* base : {"kept", "edited", "open", "added"}) {
        const sts_image_def_t image = def(base);
        ASSERT_EQ(0, api->stsa_delete_image(&lsu, &image, 0));
    }
    EXPECT_EQ(DISK_EBUSY, api->stsa_delete_lsu(&lsu));   // the snapshots still hold it
    EXPECT_EQ(0, snapshotTool("delete lsu0 s1"));
    EXPECT_EQ(DISK_ENOENT, api->stsa_get_snap_prop_byname(&lsu, &first, &info));
    EXPECT_EQ(1, snapshotTool("delete lsu0 s1"));
    EXPECT_EQ(0, snapshotTool("delete lsu0 s2"));
    EXPECT_EQ(0, snapshotTool("list lsu0", &out));
    EXPECT_EQ("", out);
    EXPECT_EQ(0, api->stsa_delete_lsu(&lsu));
}

INSTANTIATE_BOTH_ROUTES(Snapshots);

} // namespace
