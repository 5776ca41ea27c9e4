// One message of every PFCP type in the JSON form of kestrane-pdu, with element bodies laid out as the
// standard has them, so that tshark can read every field. The session messages carry the values a
// UE's session would: SEIDs, F-TEIDs, PDR, FAR, QER and URR ids, the UE's address.
#pragma once

#include <string>
#include <vector>

namespace kpf {

struct Sample {
    const char* name;
    std::string json;
};

// Recurring bodies: Node IDs 10.200.0.1 (ours) and 10.200.0.2 (the UPF's), "internet" as a DNN.
#define KPF_NODE_CP "\"000ac80001\""
#define KPF_NODE_UP "\"000ac80002\""
#define KPF_DNN "\"08696e7465726e6574\""

inline const std::vector<Sample>& samples() {
    static const std::vector<Sample> s = {
        {"heartbeat request", R"({"type":1,"sequence":101,"ies":{"recovery_time_stamp":3911484801}})"},
        {"heartbeat response", R"({"type":2,"sequence":101,"ies":{"recovery_time_stamp":3911484802}})"},
        {"pfd management request",
         R"({"type":3,"sequence":102,"ies":{"application_ids_pfds":{"application_id":"617070","pfd_context":{
            "pfd_contents":"0100001d7065726d6974206f75742069702066726f6d20616e7920746f20616e79"}}}})"},
        {"pfd management response", R"({"type":4,"sequence":102,"ies":{"cause":1}})"},
        {"association setup request",
         R"({"type":5,"sequence":103,"ies":{"node_id":)" KPF_NODE_CP R"(,"recovery_time_stamp":3911484801,
            "cp_function_features":17}})"},
        {"association setup response",
         R"({"type":6,"sequence":103,"ies":{"node_id":)" KPF_NODE_UP R"(,"cause":1,"recovery_time_stamp":3911484802,
            "up_function_features":"1000","user_plane_ip_resource_information":["210ac8000208696e7465726e6574"]}})"},
        {"association update request",
         R"({"type":7,"sequence":104,"ies":{"node_id":)" KPF_NODE_UP R"(,"pfcp_association_release_request":"01",
            "graceful_release_period":"21","pfcpaureq_flags":1}})"},
        {"association update response", R"({"type":8,"sequence":104,"ies":{"node_id":)" KPF_NODE_CP R"(,"cause":1}})"},
        {"association release request", R"({"type":9,"sequence":105,"ies":{"node_id":)" KPF_NODE_CP R"(}})"},
        {"association release response", R"({"type":10,"sequence":105,"ies":{"node_id":)" KPF_NODE_UP R"(,"cause":1}})"},
        {"version not supported response", R"({"type":11,"sequence":106})"},
        {"node report request",
         R"({"type":12,"sequence":107,"ies":{"node_id":)" KPF_NODE_UP R"(,"node_report_type":"01",
            "user_plane_path_failure_report":{"remote_gtp_u_peer":"020a000009"}}})"},
        {"node report response", R"({"type":13,"sequence":107,"ies":{"node_id":)" KPF_NODE_CP R"(,"cause":1}})"},
        {"session set deletion request",
         R"({"type":14,"sequence":108,"ies":{"node_id":)" KPF_NODE_CP R"(,"sgw_c_fq_csid":"010ac800010001",
            "pgw_c_fq_csid":"010ac800010002"}})"},
        {"session set deletion response", R"({"type":15,"sequence":108,"ies":{"node_id":)" KPF_NODE_UP R"(,"cause":1}})"},
        {"session establishment request",
         R"({"type":50,"sequence":109,"seid":0,"ies":{"node_id":)" KPF_NODE_CP R"(,
            "cp_f_seid":"0200000000000001f60ac80001",
            "create_pdr":[
              {"pdr_id":1,"precedence":255,"pdi":{"source_interface":1,"network_instance":)" KPF_DNN R"(,
               "ue_ip_address":"060a2d0001"},"far_id":1,"qer_id":1},
              {"pdr_id":2,"precedence":255,"pdi":{"source_interface":0,"local_f_teid":"01000003e80ac80002",
               "network_instance":)" KPF_DNN R"(,"sdf_filter":["0100001d7065726d6974206f75742069702066726f6d20616e7920746f20616e79"],
               "qfi":1},"outer_header_removal":"00","far_id":2,"qer_id":1}],
            "create_far":[
              {"far_id":1,"apply_action":2,"forwarding_parameters":{"destination_interface":0,
               "outer_header_creation":"0100000007d00ac80001"}},
              {"far_id":2,"apply_action":2,"forwarding_parameters":{"destination_interface":1,
               "network_instance":)" KPF_DNN R"(}}],
            "create_urr":[{"urr_id":1,"measurement_method":2,"volume_quota":"010000000000001000"}],
            "create_qer":[{"qer_id":1,"gate_status":0,"mbr":"00000028000000002800","qfi":1}],
            "pdn_type":1,"apn_dnn":)" KPF_DNN R"(}})"},
        {"session establishment response",
         R"({"type":51,"sequence":109,"seid":502,"ies":{"node_id":)" KPF_NODE_UP R"(,"cause":1,
            "up_f_seid":"020000000000abcdef0ac80002",
            "created_pdr":[{"pdr_id":2,"local_f_teid":"01000003e80ac80002"}]}})"},
        {"session modification request",
         R"({"type":52,"sequence":110,"seid":11259375,"ies":{"cp_f_seid":"0200000000000001f60ac80001",
            "remove_pdr":[{"pdr_id":3}],
            "update_far":[{"far_id":1,"apply_action":2,"update_forwarding_parameters":{"destination_interface":0,
              "outer_header_creation":"0100000007d10ac80001"}}],
            "update_urr":[{"urr_id":1,"measurement_method":2,"volume_quota":"010000000000002000"}],
            "update_qer":[{"qer_id":1,"gate_status":0,"mbr":"00000050000000005000"}]}})"},
        {"session modification response",
         R"({"type":53,"sequence":110,"seid":502,"ies":{"cause":1,
            "usage_report":{"urr_id":1,"ur_seqn":"00000001","usage_report_trigger":"000100",
            "volume_measurement":"010000000000002000"}}})"},
        {"session deletion request", R"({"type":54,"sequence":111,"seid":11259375})"},
        {"session deletion response",
         R"({"type":55,"sequence":111,"seid":502,"ies":{"cause":1,
            "usage_report":{"urr_id":1,"ur_seqn":"00000002","usage_report_trigger":"000800",
            "volume_measurement":"010000000000003000"}}})"},
        {"session report request",
         R"({"type":56,"sequence":112,"seid":502,"ies":{"report_type":2,
            "usage_report":{"urr_id":1,"ur_seqn":"00000003","usage_report_trigger":"000100",
            "volume_measurement":"07000000000000100000000000000008000000000000000800"}}})"},
        {"session report response", R"({"type":57,"sequence":112,"seid":11259375,"ies":{"cause":1}})"},
    };
    return s;
}

}  // namespace kpf
