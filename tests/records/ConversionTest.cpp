// The record conversions: the deliberate cuts and clears, and round trips
// whose members all differ, so a swapped or forgotten member shows.
#include "ProxyKeyMgr.h"
#include "ProxyUtilCredential.h"

#include <cstring>
#include <gtest/gtest.h>
#include <string>
#include <utility>

namespace {

template <typename T>
T zeroed()
{
    T t;
    std::memset(static_cast<void*>(&t), 0, sizeof(t));
    return t;
}

// c converted for the wire (into wire) and back into a record of zeros.
template <typename T, typename Wire>
T roundTrip(const T& c, Wire& wire)
{
    ZVS2CORBA(c, &wire);
    T back = zeroed<T>();
    CORBA2ZVS(wire, &back);
    return back;
}

TEST(Conversions, ServerInformationRoundTripAndShortCopies)
{
    auto c = zeroed<sts_server_info_t>();
    std::strcpy(c.srv_server, "Disk:host");
    std::strcpy(c.srv_ndmp_host, "ndmp");
    for (int i = 0; i < 32; ++i) {
        std::snprintf(c.srv_sth[i], sizeof(c.srv_sth[i]), "fmt%d", i);
        std::snprintf(c.srv_interface[i], sizeof(c.srv_interface[i]), "if%d", i);
    }
    for (int i = 0; i < 65; ++i) c.srv_cap[i] = 1000u + i;
    for (int i = 0; i < 8; ++i) c.srv_cred[i] = static_cast<sts_cred_type_v7_t>(i % 2);
    c.srv_flags = 1; c.srv_maxconnect = 2; c.srv_nconnect = 3;
    API::ServerInformation info;
    auto back = roundTrip(c, info);
    EXPECT_EQ(0, std::memcmp(&c, &back, sizeof(c)));

    // Interface names are cut to 31 characters whatever their slot's width.
    info.srv_interface[3].iface = CORBA::string_dup(std::string(40, 'i').c_str());
    CORBA2ZVS(info, &back);
    EXPECT_EQ(31u, std::strlen(back.srv_interface[3]));
}

TEST(Conversions, LsuInformationCarriesItsVersionButNotTheDefinitions)
{
    auto c = zeroed<sts_lsu_info_t>();
    c.version = 9;
    std::strcpy(c.lsu_server, "Disk:h");
    c.lsu_def.version = 7;
    std::strcpy(c.lsu_def.sld_name.sln_name, "lsu0");
    c.lsu_def.sld_alloc = STS_LSU_AT_DYNAMIC;
    c.lsu_def.sld_storage = STS_LSU_ST_FILE;
    std::strcpy(c.lsu_def.sld_description, "desc");
    std::strcpy(c.lsu_def.sld_config, "conf");
    std::strcpy(c.lsu_def.sld_label, "label");
    c.lsu_def.sld_flags = 11; c.lsu_def.sld_saveas = 12; c.lsu_def.sld_max_transfer = 13;
    c.lsu_def.sld_block_size = 14; c.lsu_def.sld_alloc_size = 15;
    c.lsu_def.sld_rep_sources = 16; c.lsu_def.sld_rep_targets = 17;
    c.lsu_capacity = 18; c.lsu_capacity_phys = 19; c.lsu_used = 20; c.lsu_used_phys = 21; c.lsu_images = 22;
    API::LsuInformationV11 info;
    const auto back = roundTrip(c, info);
    EXPECT_EQ(9u, info.version);
    EXPECT_EQ(0u, info.lsu_def.version);
    c.lsu_def.version = 0;   // never carried
    EXPECT_EQ(0, std::memcmp(&c, &back, sizeof(c)));
}

TEST(Conversions, ImageInformationV13RoundTripAndThePolicyNameCut)
{
    auto c = zeroed<sts_image_info_t>();
    c.version = 2;
    sts_image_def_t& d = c.imo_def;
    d.version = 3;
    std::strcpy(d.img_basename, "base");
    std::strcpy(d.img_date, "date");
    std::strcpy(d.img_fulldate, "fulldate");
    std::strcpy(d.img_policy, "policy");
    std::strcpy(d.img_format, "fmt");
    d.img_saveas = 4; d.img_flags = 5; d.img_filler = 6; d.img_isid.version = 7;
    std::strcpy(d.img_isid.is_dpaid, "dpa");
    std::strcpy(d.img_isid.is_dpaver, "1.0");
    stskdv_isinfo_t isi = zeroed<stskdv_isinfo_t>();
    std::strcpy(isi.bi_master_server, "master");
    isi.bi_time = 8; isi.bi_copy_number = 9; isi.isi_strm_num = 10;
    isi.isi_img_type = 3; isi.isi_frag_num = 11; isi.isi_instance_num = 12;
    std::strcpy(isi.isi_client, "client");
    std::memset(isi.isi_slpname, 's', 600);
    std::memcpy(d.img_isid.is_info, &isi, sizeof(isi));
    std::strcpy(c.imo_server, "server");
    std::strcpy(c.imo_lsu.sln_name, "lsu");
    c.imo_size = 13; c.imo_block_size = 14; c.imo_status = 15; c.imo_filler = 16;
    for (int i = 0; i < 4; ++i) {
        c.imo_export[i].ex_fstype = 20u + i;
        c.imo_export[i].ex_filler = 30u + i;
        std::snprintf(c.imo_export[i].ex_mount, sizeof(c.imo_export[i].ex_mount), "/mnt/%d", i);
    }

    API::ImageInformationV13 info;
    const auto back = roundTrip(c, info);
    // From the plug-in the name arrives whole, towards it cut to 511.
    EXPECT_EQ(600u, std::strlen(info.imo_def.isid.is_dpainfo.isi_slpname));
    EXPECT_EQ(API::STS_IMGTYP_IM, info.imo_def.isid.is_dpainfo.isi_img_type);
    stskdv_isinfo_t backIsi;
    std::memcpy(&backIsi, back.imo_def.img_isid.is_info, sizeof(backIsi));
    EXPECT_EQ(511u, std::strlen(backIsi.isi_slpname));
    std::memset(isi.isi_slpname + 511, 0, 89);
    std::memcpy(d.img_isid.is_info, &isi, sizeof(isi));
    EXPECT_EQ(0, std::memcmp(&c, &back, sizeof(c)));
}

TEST(Conversions, RestoreControlPairsRenamedMembers)
{
    auto c = zeroed<sts_ioctl_restore_cntl_t>();
    c.fragnum = 1; c.firstblk = 2; c.blocks_to_skip = 3; c.bytes_to_skip = 4; c.tar_pid = 5;
    c.tar_exitstat = 6; c.tar_control = 7; c.suspended = 8; c.copy_num = 9; c.reqd_port = 10;
    c.child_delay = 11; c.locate_available = 12; c.min_locate_skip = 13; c.valid = 14;
    c.b_fragnum = 'a'; c.b_firstblk = 'b'; c.b_blocks_to_skip = 'c'; c.b_bytes_to_skip = 'd';
    c.b_tar_pid = 'e'; c.b_tar_exitstat = 'f'; c.b_tar_control = 'g'; c.b_suspended = 'h';
    c.b_set_restore_info = 'i'; c.b_copy_num = 'j'; c.b_reqd_port = 'k'; c.b_restore_svr = 'l';
    c.b_client = 'm'; c.b_backupid = 'n'; c.b_child_delay = 'o'; c.b_locate_available = 'p';
    c.b_min_locate_skip = 'q'; c.b_valid = 'r'; c.b_reqd_ipc = 's';
    std::strcpy(c.restore_svr, "svr"); std::strcpy(c.client, "cli");
    std::strcpy(c.backupid, "bid"); std::strcpy(c.reqd_ipc, "ipc");
    API::RestoreCntl r;
    ZVS2CORBA(&c, &r);
    EXPECT_EQ(1, r.frag_num);
    EXPECT_EQ(2, r.first_blk);
    auto back = zeroed<sts_ioctl_restore_cntl_t>();
    CORBA2ZVS(r, &back);
    EXPECT_EQ(0, std::memcmp(&c, &back, sizeof(c)));
}

TEST(Conversions, VolumesSwitchOnTheVolumeType)
{
    // Every kind of volume, each of its members a text of its own.
    using Fill = void (*)(sts_volume_spec_t&);
    const std::pair<sts_volume_type_v11_t, Fill> kinds[] = {
        {STS_VOLUME_NFS, [](sts_volume_spec_t& c) {
             std::strcpy(c.v.v_nfs.fs_export_host, "nfs-host");
             std::strcpy(c.v.v_nfs.fs_export_name, "nfs-name");
             std::strcpy(c.v.v_nfs.fs_export_path, "/nfs/path");
         }},
        {STS_VOLUME_CIFS, [](sts_volume_spec_t& c) {
             std::strcpy(c.v.v_cifs.fs_export_host, "cifs-host");
             std::strcpy(c.v.v_cifs.fs_share_name, "cifs-share");
             std::strcpy(c.v.v_cifs.fs_export_path, "/cifs/path");
         }},
        {STS_VOLUME_SCSI, [](sts_volume_spec_t& c) {
             std::strcpy(c.v.v_scsi.lun_wwnn, "wwnn");
             std::strcpy(c.v.v_scsi.lun_serial, "serial");
         }},
        {STS_VOLUME_DEVICE, [](sts_volume_spec_t& c) { std::strcpy(c.v.v_device.dv_device_path, "/dev/sdz"); }},
        {STS_VOLUME_NDMP, [](sts_volume_spec_t& c) {
             std::strcpy(c.v.v_ndmp.fs_export_filer, "filer");
             std::strcpy(c.v.v_ndmp.fs_export_path, "/ndmp/path");
         }},
    };
    for (const auto& kind : kinds) {
        auto c = zeroed<sts_volume_spec_t>();
        c.vs_volume_type = kind.first;
        kind.second(c);
        API::VolumeSpecV11 v;
        const auto back = roundTrip(c, v);
        EXPECT_EQ(static_cast<int>(kind.first), v.v._d());
        EXPECT_EQ(0, std::memcmp(&c, &back, sizeof(c))) << "volume type " << kind.first;
    }

    // The type says SCSI, the union holds NFS: the SCSI strings are empty.
    API::VolumeSpecV11 mixed;
    API::NfsVolumeV11 nfs;
    nfs.fs_export_host = CORBA::string_dup("host");
    mixed.v.v_nfs(nfs);
    mixed.vs_volume_type = API::STS_VOLUME_SCSI;
    auto fromMixed = zeroed<sts_volume_spec_t>();
    std::memset(&fromMixed.v, 'x', sizeof(fromMixed.v));
    CORBA2ZVS(mixed, &fromMixed);
    EXPECT_STREQ("", fromMixed.v.v_scsi.lun_wwnn);
    EXPECT_STREQ("", fromMixed.v.v_scsi.lun_serial);
}

// omniORB aborts the process on a null string and follows a union's member
// pointer blindly: what the service sends must marshal, whatever the
// plug-in left in its C records.
TEST(Conversions, RecordsForTheWireAlwaysMarshal)
{
    auto fscp = zeroed<sts_ioctl_fscp_info_t>();
    API::FscpInfo f;
    ZVS2CORBA(&fscp, &f);
    auto vol = zeroed<sts_volume_spec_t>();
    vol.vs_volume_type = static_cast<sts_volume_type_v11_t>(9);
    API::VolumeSpecV11 v;
    ZVS2CORBA(vol, &v);
    auto lsu = zeroed<sts_lsu_info_v11_t>();
    std::memset(lsu.lsu_server, 's', sizeof(lsu.lsu_server));   // no terminator anywhere
    std::memset(lsu.lsu_def.sld_name.sln_name, 'n', sizeof(lsu.lsu_def.sld_name.sln_name));
    API::LsuInformationV11 l;
    ZVS2CORBA(lsu, &l);
    EXPECT_EQ(sizeof(lsu.lsu_server), std::strlen(l.lsu_server));

    int argc = 0;
    CORBA::ORB_var orb = CORBA::ORB_init(argc, nullptr);   // strings marshal through its code sets
    cdrMemoryStream out;
    EXPECT_NO_THROW(f >>= out);
    EXPECT_NO_THROW(v >>= out);
    EXPECT_NO_THROW(l >>= out);
    EXPECT_STREQ("", f.reserved);
}

TEST(Conversions, FileSystemCopyConfigurationIsCutAndClearedWhole)
{
    auto cfg = zeroed<sts_ioctl_fscp_config_t>();
    std::memset(cfg.frag.backup_id, 'b', 250);   // runs over into the numbers
    std::strcpy(cfg.policy, "pol");
    API::FscpConfig config;
    ZVS2CORBA(&cfg, &config);
    auto back = zeroed<sts_ioctl_fscp_config_t>();
    std::memset(&back, 0x7F, sizeof(back));   // cleared whole, whatever it held
    CORBA2ZVS(config, &back);
    EXPECT_EQ(199u, std::strlen(back.frag.backup_id));
    EXPECT_STREQ("pol", back.policy);
}

TEST(Conversions, CredentialsDecryptWithTheDeclaredLength)
{
    ProxyKeyMgr* keys = ProxyKeyMgr::getInstance(1024);
    ASSERT_NE(nullptr, keys);
    const char clear[] = "secret";
    unsigned char cipher[256];
    const int n = keys->doPublicEncrypt(6, clear, cipher);
    ASSERT_EQ(128, n);
    API::Credential cred;
    cred.len = 10;   // more than was encrypted: zero bytes follow
    cred.type = 1;
    cred.cert.length(128);
    std::memcpy(cred.cert.get_buffer(), cipher, 128);
    sts_cred_t c;
    std::memset(&c, 0x55, sizeof(c));
    EXPECT_EQ(0, CORBA2ZVS(cred, &c));
    EXPECT_EQ(10u, c.cr_len);
    EXPECT_EQ(STS_CRED_MD5, c.cr_type);
    EXPECT_EQ(0, std::memcmp(c.cr_cert, "secret\0\0\0\0", 10));

    // A host whose peer key is unusable still converts; its cert stays empty.
    auto host = zeroed<sts_host_t>();
    std::strcpy(host.sh_name, "peer");
    host.sh_cred.cr_len = 6;
    API::Bytes_var badKey = new API::Bytes;
    API::STSHost out;
    EXPECT_EQ(0, ZVS2CORBA(badKey, host, &out));
    EXPECT_EQ(0u, out.sh_cred.cert.length());
    EXPECT_STREQ("peer", out.sh_name);
}

} // namespace
