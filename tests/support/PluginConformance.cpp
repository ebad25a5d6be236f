// The cases of the plug-ins' conformance suite (PluginConformance.h).
#include "PluginConformance.h"

#include <cstdio>
#include <thread>

namespace conformance {

namespace {

const sts_uint64_t kStripe = 64 * 1024;   // a RADOS test server's object size: images span many

sts_snap_def_t snap(const char* name)
{
    sts_snap_def_t d = {};
    std::snprintf(d.sd_snap_name, sizeof(d.sd_snap_name), "%s", name);
    return d;
}

} // namespace

// The server's one LSU; images written at decreasing offsets, read across
// the end, copied, listed, counted by group and deleted; a label finds its
// LSU; a refused create or write changes nothing.
TEST_P(Conformance, ImagesAreWrittenReadCopiedListedAndDeleted)
{
    sts_handle_t list = nullptr;
    ASSERT_EQ(0, api->stsa_open_lsu_list(svh, nullptr, &list));
    sts_lsu_name_t name;
    ASSERT_EQ(0, api->stsa_list_lsu(list, &name));
    EXPECT_STREQ("lsu0", name.sln_name);
    EXPECT_EQ(STS_ENO_MORE, api->stsa_list_lsu(list, &name));
    api->stsa_close_handle(list, 0);
    sts_lsu_name_t wanted = {};
    std::strcpy(wanted.sln_name, "missing");
    EXPECT_EQ(STS_ENO_MORE, api->stsa_find_lsu(svh, &wanted, &name));   // a result, not an error
    char label[] = "weekly";
    ASSERT_EQ(0, api->stsa_label_lsu(&lsu, label));
    std::strcpy(wanted.sln_name, "weekly");
    ASSERT_EQ(0, api->stsa_find_lsu(svh, &wanted, &name));
    EXPECT_STREQ("lsu0", name.sln_name);
    sts_server_info_t sinfo;
    EXPECT_EQ(plugin().enoent, api->stsa_get_server_prop_byname(&sd, (std::string(plugin().prefix) + "nobody-here").c_str(), &sinfo));
    ASSERT_EQ(0, api->stsa_get_server_prop(svh, &sinfo));
    EXPECT_EQ(server, sinfo.srv_server);

    sts_handle_t h = create("backup1");
    write(h, "world", 6);
    write(h, "hello ", 0);
    const std::string meta = "catalog";
    sts_uint64_t done = 0;
    ASSERT_EQ(0, api->stsa_write_image_meta(h, const_cast<char*>(meta.data()), meta.size(), 0, &done));
    EXPECT_EQ(0, api->stsa_flush(h));
    EXPECT_EQ(static_cast<sts_uint32_t>(STSP_IMAGE_INCOMPLETE), status("backup1"));
    EXPECT_EQ(11u, info("backup1").imo_size);   // the flush told the size
    EXPECT_EQ(0, api->stsa_close_handle(h, 0));
    EXPECT_EQ(static_cast<sts_uint32_t>(STSP_IMAGE_COMPLETE), status("backup1"));

    h = open("backup1", plugin().openRead);
    EXPECT_EQ("hello world", read(h, 100, 0));   // across the end
    EXPECT_EQ("world", read(h, 5, 6));
    EXPECT_EQ("", read(h, 5, 11));
    std::string m(16, '\0');
    ASSERT_EQ(0, api->stsa_read_image_meta(h, &m[0], m.size(), 0, &done));
    EXPECT_EQ(meta, m.substr(0, done));
    EXPECT_EQ(plugin().ereadonly, api->stsa_write_image(h, nullptr, const_cast<char*>("x"), 1, 0, &done));
    sts_image_info_t i;
    ASSERT_EQ(0, api->stsa_get_image_prop(h, &i));
    EXPECT_EQ(11u, i.imo_size);   // the refused write changed nothing
    EXPECT_STREQ("20261123T0101", i.imo_def.img_fulldate);
    sts_handle_t dst = create("dst");
    ASSERT_EQ(0, api->stsa_copy_extent(dst, 0, h, 2, 5, 0, &done));
    EXPECT_EQ(5u, done);
    ASSERT_EQ(0, api->stsa_include_in_image(dst, 5, h, 0, 2, &done));
    EXPECT_EQ(2u, done);
    ASSERT_EQ(0, api->stsa_include_in_image(dst, 7, h, 9, 100, &done));
    EXPECT_EQ(2u, done);   // the source ends
    EXPECT_EQ("llo whe" "ld", read(dst, 100, 0));
    EXPECT_EQ(plugin().ereadonly, api->stsa_include_in_image(h, 0, dst, 0, 1, &done));
    api->stsa_close_handle(dst, 0);
    api->stsa_close_handle(h, 0);

    ASSERT_EQ(0, api->stsa_open_image_list(&lsu, 0, &list));
    std::string names;
    sts_image_def_t listed;
    int rc = 0;
    while ((rc = api->stsa_list_image(list, &listed)) == 0) names += std::string(listed.img_basename) + "@" + listed.img_date + " ";
    EXPECT_EQ(STS_ENO_MORE, rc);
    EXPECT_EQ("backup1@20261123 dst@20261123 ", names);
    api->stsa_close_handle(list, 0);
    const sts_image_def_t d = def("backup1");
    sts_uint32_t group = 0;
    ASSERT_EQ(0, api->stsa_get_image_group_byname(&lsu, &d, &group));
    EXPECT_EQ(1u, group);
    sts_lsu_info_t linfo;
    ASSERT_EQ(0, api->stsa_get_lsu_prop_byname(&lsu, &linfo));
    EXPECT_EQ(2u, linfo.lsu_images);
    EXPECT_EQ(20u, linfo.lsu_used);
    EXPECT_STREQ("weekly", linfo.lsu_def.sld_label);

    EXPECT_EQ(plugin().eexist, api->stsa_create_image(&lsu, &d, 0, &list));
    EXPECT_EQ(static_cast<sts_uint32_t>(STSP_IMAGE_COMPLETE), status("backup1"));   // the refused create did not mark it
    EXPECT_EQ(plugin().ebusy, api->stsa_delete_lsu(&lsu));   // it holds images
    EXPECT_EQ(0, api->stsa_delete_image(&lsu, &d, 0));
    info("backup1", plugin().enoent);
    EXPECT_EQ(plugin().enoent, api->stsa_delete_image(&lsu, &d, 0));
}

// An image over many stripe objects: writes at decreasing offsets, a gap
// that reads as zeros, a write sent again after a lost reply that changes
// nothing, reads across object boundaries and the end.
TEST_P(Conformance, ImagesSpanStripeObjects)
{
    const std::string a(kStripe + 100, 'a');
    const std::string b(2 * kStripe, 'b');
    sts_handle_t h = create("big");
    write(h, a, 4 * kStripe - 50);   // the last objects first; the third is never written
    write(h, b, 0);
    write(h, b, 0);                  // sent again
    EXPECT_EQ(0, api->stsa_close_handle(h, 0));
    const sts_uint64_t size = 5 * kStripe + 50;
    EXPECT_EQ(size, info("big").imo_size);

    h = open("big", plugin().openRead);
    const std::string whole = read(h, size + 4096, 0);
    ASSERT_EQ(size, whole.size());
    EXPECT_EQ(b, whole.substr(0, b.size()));
    EXPECT_EQ(std::string(2 * kStripe - 50, '\0'), whole.substr(b.size(), 2 * kStripe - 50));
    EXPECT_EQ(a, whole.substr(4 * kStripe - 50));
    EXPECT_EQ("bb", read(h, 2, kStripe - 1));   // across a boundary
    EXPECT_EQ(std::string(10, 'a'), read(h, 20, size - 10));
    // A copy from across a boundary to across another.
    sts_handle_t copy = create("copy");
    sts_uint64_t done = 0;
    ASSERT_EQ(0, api->stsa_copy_extent(copy, kStripe - 10, h, 2 * kStripe - 10, 2 * kStripe + 20, 0, &done));
    EXPECT_EQ(2 * kStripe + 20, done);
    EXPECT_EQ(whole.substr(2 * kStripe - 10, 2 * kStripe + 20), read(copy, 2 * kStripe + 20, kStripe - 10));
    api->stsa_close_handle(copy, 0);
    api->stsa_close_handle(h, 0);
    sts_lsu_info_t linfo;
    ASSERT_EQ(0, api->stsa_get_lsu_prop_byname(&lsu, &linfo));
    EXPECT_EQ(size + 3 * kStripe + 10, linfo.lsu_used);
}

TEST_P(Conformance, BadNamesModesAndExtentsChangeNothing)
{
    sts_handle_t h = nullptr;
    for (const sts_image_def_t& bad : {def("../x"), def(""), def("a", "2026/11/23")}) {
        EXPECT_EQ(plugin().einval, api->stsa_create_image(&lsu, &bad, 0, &h)) << bad.img_basename << " " << bad.img_date;
    }
    const sts_image_def_t ok = def("fine");
    sts_lsu_t outside = remotetest::lsuOf(svh, "..");
    EXPECT_EQ(plugin().einval, api->stsa_create_image(&outside, &ok, 0, &h));
    sts_lsu_t nolsu = remotetest::lsuOf(svh, "nolsu");
    EXPECT_EQ(plugin().enoent, api->stsa_create_image(&nolsu, &ok, 0, &h));
    // Every call on an LSU tells a name that cannot be one from one that is not there.
    for (const char* which : {"..", "nolsu"}) {
        const sts_lsu_t named = remotetest::lsuOf(svh, which);
        const int expected = std::string(which) == ".." ? plugin().einval : plugin().enoent;
        sts_uint32_t count = 0;
        sts_lsu_info_t props;
        char label[] = "label";
        sts_lsu_name_t mounted;
        EXPECT_EQ(expected, api->stsa_open_image_list(&named, 0, &h)) << which;
        EXPECT_EQ(expected, api->stsa_open_image_group_list(&named, &ok, 0, &h)) << which;
        EXPECT_EQ(expected, api->stsa_get_image_group_byname(&named, &ok, &count)) << which;
        EXPECT_EQ(expected, api->stsa_get_lsu_prop_byname(&named, &props)) << which;
        EXPECT_EQ(expected, api->stsa_label_lsu(&named, label)) << which;
        EXPECT_EQ(expected, api->stsa_open_lsu(&named, &h)) << which;
        EXPECT_EQ(expected, api->stsa_mount_lsu(&named, "/export/x", 0, "", &mounted)) << which;
        EXPECT_EQ(expected, api->stsa_unmount_lsu(&named, "/export/x")) << which;
        EXPECT_EQ(expected, api->stsa_activate_lsu(&sd, &named, 1)) << which;
        EXPECT_EQ(expected, api->stsa_delete_lsu(&named)) << which;
    }
    EXPECT_EQ(plugin().einval, api->stsa_open_image(&lsu, &ok, 7, &h));
    EXPECT_EQ(plugin().enoent, api->stsa_open_image(&lsu, &ok, plugin().openRead, &h));
    sts_handle_t other = nullptr;
    EXPECT_EQ(plugin().enoent, api->stsa_open_server(ssn, (std::string(plugin().prefix) + "..").c_str(), nullptr, "", &other));

    h = create("limits");
    sts_uint64_t done = 0;
    EXPECT_EQ(plugin().einval, api->stsa_write_image(h, nullptr, const_cast<char*>("x"), 1, plugin().maxExtent, &done));
    api->stsa_close_handle(h, 0);
    sts_lsu_info_t linfo;
    ASSERT_EQ(0, api->stsa_get_lsu_prop_byname(&lsu, &linfo));
    EXPECT_EQ(1u, linfo.lsu_images);
    EXPECT_EQ(0u, linfo.lsu_used);
    EXPECT_EQ(0u, info("limits").imo_size);
}

// Controls and LSU administration, each with a payload of its own shape.
TEST_P(Conformance, ControlsAndLsuAdministrationCarryTheirPayloads)
{
    sts_ioctl_restore_cntl_t cntl = {};
    cntl.fragnum = 7;
    std::strcpy(cntl.client, "client-a");
    ASSERT_EQ(0, api->stsa_ioctl(svh, STS_IOCTL_SET_RESTORE_CNTL, &cntl));
    sts_ioctl_restore_cntl_t back;
    ASSERT_EQ(0, api->stsa_ioctl(svh, STS_IOCTL_GET_RESTORE_CNTL, &back));
    EXPECT_EQ(7, back.fragnum);
    EXPECT_STREQ("client-a", back.client);
    sts_ioctl_get_lsu_unique_id_t id = {};
    id.lsu = lsu;
    ASSERT_EQ(0, api->stsa_ioctl(svh, STS_IOCTL_GET_LSU_UNIQUE_ID, &id));
    EXPECT_EQ(32u, std::strlen(id.unique_id));
    sts_ioctl_get_lsu_unique_id_t again = {};
    again.lsu = lsu;
    ASSERT_EQ(0, api->stsa_ioctl(svh, STS_IOCTL_GET_LSU_UNIQUE_ID, &again));
    EXPECT_STREQ(id.unique_id, again.unique_id);   // kept, not made anew
    int unknown = 0;
    EXPECT_EQ(STS_ENOT_SUPPORTED, api->stsa_ioctl(svh, 99999, &unknown));

    sts_handle_t lh = nullptr;
    ASSERT_EQ(0, api->stsa_open_lsu(&lsu, &lh));
    sts_lsu_pool_t pool = {};
    std::strcpy(pool.lp_name.sln_name, "fast");
    pool.lp_priority = 3;
    ASSERT_EQ(0, api->stsa_add_pool_lsu(lh, &pool));
    EXPECT_EQ(plugin().eexist, api->stsa_add_pool_lsu(lh, &pool));
    sts_lsu_pool_t pools[4];
    int ret = 0, total = 0;
    ASSERT_EQ(0, api->stsa_get_pool_lsu(lh, pools, 4, &ret, &total));
    ASSERT_EQ(1, ret);
    EXPECT_STREQ("fast", pools[0].lp_name.sln_name);
    EXPECT_EQ(3u, pools[0].lp_priority);
    sts_storel_t elements[2];
    ASSERT_EQ(0, api->stsa_get_storel(svh, elements, 2, &ret, &total));
    ASSERT_EQ(1, ret);
    sts_storel_info_t einfo;
    ASSERT_EQ(0, api->stsa_get_storel_prop(svh, elements[0].ste_devname, &einfo));
    EXPECT_STREQ("lsu0", einfo.sti_owner.sln_name);
    EXPECT_EQ(0, api->stsa_alloc_lsu(lh, &elements[0]));
    EXPECT_EQ(plugin().eexist, api->stsa_alloc_lsu(lh, &elements[0]));
    api->stsa_close_handle(lh, 0);
    sts_lsu_name_t mounted;
    EXPECT_EQ(0, api->stsa_mount_lsu(&lsu, "/export/lsu0", 0, "", &mounted));
    EXPECT_STREQ("lsu0", mounted.sln_name);
    EXPECT_EQ(plugin().ebusy, api->stsa_mount_lsu(&lsu, "/other", 0, "", &mounted));
    EXPECT_EQ(plugin().einval, api->stsa_unmount_lsu(&lsu, "/other"));
    EXPECT_EQ(0, api->stsa_unmount_lsu(&lsu, "/export/lsu0"));
    EXPECT_EQ(0, api->stsa_activate_lsu(&sd, &lsu, 1));
}

TEST_P(Conformance, ExtractIntoAnotherLsuAndDeleteFiles)
{
    ASSERT_EQ(0, plugin().addLsu(root, server, "lsu1"));
    sts_handle_t h = create("keep");
    write(h, "payload", 0);
    const std::string meta = "catalog";
    sts_uint64_t done = 0;
    ASSERT_EQ(0, api->stsa_write_image_meta(h, const_cast<char*>(meta.data()), meta.size(), 0, &done));
    sts_lsu_name_t other = {};
    std::strcpy(other.sln_name, "lsu1");
    ASSERT_EQ(0, api->stsa_extract_files(h, &other, 0));
    EXPECT_EQ(plugin().eexist, api->stsa_extract_files(h, &other, 0));
    std::strcpy(other.sln_name, "nolsu");
    EXPECT_EQ(plugin().enoent, api->stsa_extract_files(h, &other, 0));
    api->stsa_close_handle(create("gone"), 0);
    const char* names[] = {"gone@20261123@20261123T0101", "absent@x@y"};
    EXPECT_EQ(0, api->stsa_delete_files(h, names, 2));
    const char* self[] = {"keep@20261123@20261123T0101"};
    EXPECT_EQ(plugin().ebusy, api->stsa_delete_files(h, self, 1));
    api->stsa_close_handle(h, 0);

    info("gone", plugin().enoent);
    const sts_lsu_t lsu1 = remotetest::lsuOf(svh, "lsu1");
    const sts_image_def_t keepDef = def("keep");
    sts_image_info_t i;
    ASSERT_EQ(0, api->stsa_get_image_prop_byname(&lsu1, &keepDef, &i));
    EXPECT_EQ(7u, i.imo_size);
    EXPECT_EQ(static_cast<sts_uint32_t>(STSP_IMAGE_COMPLETE), i.imo_status);
    ASSERT_EQ(0, api->stsa_open_image(&lsu1, &keepDef, plugin().openRead, &h));
    EXPECT_EQ("payload", read(h, 100, 0));
    std::string m(16, '\0');
    ASSERT_EQ(0, api->stsa_read_image_meta(h, &m[0], m.size(), 0, &done));
    EXPECT_EQ(meta, m.substr(0, done));
    api->stsa_close_handle(h, 0);
}

TEST_P(Conformance, TwoThreadsWriteTwoImages)
{
    auto writer = [&](const char* base, char fill) {
        sts_handle_t h = create(base);
        const std::string block(65536, fill);
        for (int i = 0; i < 32; ++i) write(h, block, static_cast<sts_uint64_t>(i) * block.size());
        EXPECT_EQ(0, api->stsa_close_handle(h, 0));
    };
    std::thread a(writer, "ta", 'a');
    std::thread b(writer, "tb", 'b');
    a.join();
    b.join();
    sts_handle_t h = open("tb", plugin().openRead);
    EXPECT_EQ(std::string(65536, 'b'), read(h, 65536, 31 * 65536));
    api->stsa_close_handle(h, 0);
}

// The change list between two snapshots holds exactly the differences;
// the first snapshot never changes; the tool, the properties and the
// refusals of bad names around them.
TEST_P(Conformance, SnapshotChangeListsPropertiesToolAndRefusals)
{
    closedImage("kept", "unchanged");
    closedImage("edited", "old data");
    closedImage("removed", "going");
    sts_handle_t writing = create("open");   // still being written while s1 is taken
    write(writing, "half", 0);
    ASSERT_EQ(0, snapshotTool("create", "lsu0 s1"));

    sts_handle_t h = open("edited", plugin().openWrite);
    write(h, "NEW", 0);
    api->stsa_close_handle(h, 0);
    write(writing, "-and-the-rest", 4);
    api->stsa_close_handle(writing, 0);
    const sts_image_def_t gone = def("removed");
    ASSERT_EQ(0, api->stsa_delete_image(&lsu, &gone, 0));
    closedImage("added", "fresh!");
    api->stsa_close_handle(open("kept", plugin().openRead), 0);   // reading changes nothing
    ASSERT_EQ(0, snapshotTool("create", "lsu0 s2"));

    sts_snap_info_t info;
    const sts_snap_def_t first = snap("s1");
    ASSERT_EQ(0, api->stsa_get_snap_prop_byname(&lsu, &first, &info));
    EXPECT_EQ("old data", plugin().snapshotData(info, file("edited")));
    EXPECT_EQ("half", plugin().snapshotData(info, file("open")));
    EXPECT_EQ("going", plugin().snapshotData(info, file("removed")));
    EXPECT_EQ(26u, info.sno_snap_size);
    EXPECT_EQ(1u, info.sno_snap_status);
    EXPECT_STREQ("s1", info.sno_snap_def.sd_snap_name);
    long long taken = 0;
    unsigned images = 0;
    ASSERT_EQ(2, std::sscanf(info.sno_snap_def.sd_snap_isid.is_info, "time=%lld images=%u", &taken, &images));
    EXPECT_EQ(4u, images);

    auto changes = [&](const char* base, const char* diff, std::vector<std::string> patterns = {}) {
        std::vector<sts_pathname_t> filter(patterns.size());
        for (size_t i = 0; i < patterns.size(); ++i) std::snprintf(filter[i], sizeof(filter[i]), "%s", patterns[i].c_str());
        const sts_snap_def_t b = snap(base);
        const sts_snap_def_t d = snap(diff);
        sts_volume_spec_t vol = {};
        sts_handle_t list = nullptr;
        EXPECT_EQ(0, api->stsa_open_snap_change_list(&lsu, &b, &d, &vol, 0, &list));
        std::string out;
        sts_file_attr_t attr;
        int rc = 0;
        while ((rc = api->stsa_list_file(list, static_cast<sts_uint32_t>(filter.size()), filter.data(), &attr)) == 0) {
            const std::string name = attr.object_name;
            const std::string baseName = name.substr(0, name.find('@'));
            EXPECT_EQ(file(baseName.c_str()), name);
            EXPECT_EQ(STS_DIFF_OBJECT_FILE, attr.object_type);
            out += (out.empty() ? "" : " ") + baseName + "+-*"[attr.object_state] + std::to_string(attr.object_size);
        }
        EXPECT_EQ(STS_ENO_MORE, rc);
        EXPECT_EQ(0, api->stsa_close_snap_change_list(list));
        return out;
    };
    EXPECT_EQ("added+6 edited*8 open*17 removed-5", changes("s1", "s2"));   // a deleted one as the base held it
    // Filters: any pattern lets an entry through; none, nothing.
    EXPECT_EQ("added+6 removed-5", changes("s1", "s2", {"removed@*", "a*"}));
    EXPECT_EQ("", changes("s1", "s2", {"nothing*"}));
    EXPECT_EQ("added+6 edited+8 kept+9 open+17", changes("", "s2"));   // no base: everything is new
    EXPECT_EQ("", changes("s2", "s2"));
    // A closed list refuses everything, a second close included.
    auto openChanges = [&](const char* base, const char* diff, int expect) {
        const sts_snap_def_t b = snap(base);
        const sts_snap_def_t d = snap(diff);
        sts_volume_spec_t vol = {};
        sts_handle_t list = nullptr;
        EXPECT_EQ(expect, api->stsa_open_snap_change_list(&lsu, &b, &d, &vol, 0, &list)) << base << " " << diff;
        return list;
    };
    h = openChanges("s1", "s2", 0);
    sts_file_attr_t attr;
    ASSERT_EQ(0, api->stsa_list_file(h, 0, nullptr, &attr));
    ASSERT_EQ(0, api->stsa_close_snap_change_list(h));
    EXPECT_EQ(STS_ENOT_OPEN, api->stsa_list_file(h, 0, nullptr, &attr));
    EXPECT_EQ(STS_ENOT_OPEN, api->stsa_close_snap_change_list(h));
    h = openChanges("s1", "s2", 0);
    EXPECT_EQ(STS_EINVAL_ARG, api->stsa_list_file(h, 1, nullptr, &attr));
    EXPECT_EQ(0, api->stsa_close_snap_change_list(h));
    h = openChanges("s1", "s2", 0);   // closed as any handle, it is closed as a list
    EXPECT_EQ(0, api->stsa_close_handle(h, 0));
    EXPECT_EQ(STS_ENOT_OPEN, api->stsa_list_file(h, 0, nullptr, &attr));

    std::string out;
    EXPECT_EQ(1, snapshotTool("create", "lsu0 s1", &out));   // exists
    EXPECT_EQ(0, snapshotTool("list", "lsu0", &out));
    EXPECT_EQ(0u, out.find("s1\t20")) << out;
    EXPECT_NE(std::string::npos, out.find("\t4\t26\n")) << out;
    EXPECT_EQ(2, snapshotTool("create", "lsu0"));
    EXPECT_EQ(1, snapshotTool("create", "nolsu s"));
    for (const char* bad : {"", "../x", ".hidden", "a/b"}) {
        const sts_snap_def_t b = snap(bad);
        EXPECT_EQ(plugin().einval, api->stsa_get_snap_prop_byname(&lsu, &b, &info)) << bad;
        openChanges("s1", bad, plugin().einval);
        EXPECT_NE(0, snapshotTool("create", "lsu0 '" + std::string(bad) + "'")) << bad;
    }
    openChanges("../x", "s1", plugin().einval);
    openChanges("missing", "s1", plugin().enoent);

    sts_volume_spec_t vol = {};
    EXPECT_EQ(STS_ECLAIM_VOLUME, api->stsa_claim_volume(svh, &vol));
    for (const char* base : {"kept", "edited", "open", "added"}) {
        const sts_image_def_t image = def(base);
        ASSERT_EQ(0, api->stsa_delete_image(&lsu, &image, 0));
    }
    EXPECT_EQ(plugin().ebusy, api->stsa_delete_lsu(&lsu));   // the snapshots still hold it
    EXPECT_EQ(0, snapshotTool("delete", "lsu0 s1"));
    EXPECT_EQ(plugin().enoent, api->stsa_get_snap_prop_byname(&lsu, &first, &info));
    EXPECT_EQ(1, snapshotTool("delete", "lsu0 s1"));
    EXPECT_EQ(0, snapshotTool("delete", "lsu0 s2"));
    EXPECT_EQ(0, snapshotTool("list", "lsu0", &out));
    EXPECT_EQ("", out);
    EXPECT_EQ(0, api->stsa_delete_lsu(&lsu));
}

} // namespace conformance
