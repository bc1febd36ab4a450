// The one list of fields.  Everything that repeats per field (method
// registration, `fields`, the hash form both ways) expands these lists, so
// adding a field to the .proto means adding one line here.  Order is field
// number order; the families are defined in families.h.
#ifndef QEL_FIELDS_H
#define QEL_FIELDS_H

#define QEL_RECORD_FIELDS(X)                        \
    X(bot_name, String)                             \
    X(profile_name, String)                         \
    X(virtual_server_name, String)                  \
    X(client_ip, Address)                           \
    X(dest_ip, Address)                             \
    X(request_uri, String)                          \
    X(http_request, String)                         \
    X(bot_signature, String)                        \
    X(microservice_name, String)                    \
    X(microservice_matched_wildcard_url, String)    \
    X(configured_mitigation_action_reason, String)  \
    X(actual_mitigation_action_reason, String)      \
    X(actual_verification_action_reason, String)    \
    X(reason, String)                               \
    X(mobile_app_display_name, String)              \
    X(mobile_app_version, String)                   \
    X(mobile_imei, String)                          \
    X(src_port, UInt32)                             \
    X(dest_port, UInt32)                            \
    X(device_id, UInt64)                            \
    X(session_id, UInt64)                           \
    X(support_id, UInt64)                           \
    X(previous_support_id, UInt64)                  \
    X(mobile_is_app, Bool)                          \
    X(mobile_is_human_behaviour, String)            \
    X(request_time, UInt32)                         \
    X(previous_request_time, UInt32)                \
    X(http_method, String)                          \
    X(country_code, String)                         \
    X(classification, String)                       \
    X(bot_signature_category, String)               \
    X(microservice_type, String)                    \
    X(captcha_status, String)                       \
    X(browser_verification_status, String)          \
    X(device_id_status, String)                     \
    X(device_id_action, String)                     \
    X(previous_initiated_action, String)            \
    X(previous_initiated_action_status, String)     \
    X(mobile_os_id, String)                         \
    X(mobile_app_emulation_mode, String)            \
    X(mobile_app_jailbroken_rooted, String)         \
    X(anomaly_categories, StringList)               \
    X(anomalies, StringList)                        \
    X(configured_mitigation_action, String)         \
    X(actual_mitigation_action, String)             \
    X(browser_configured_verification_action, String) \
    X(browser_actual_verification_action, String)   \
    X(is_https_request, Bool)                       \
    X(additional_signatures, String)                \
    X(slot_number, UInt32)                          \
    X(host, String)                                 \
    X(request_status, String)                       \
    X(microservice_matched_wildcard_host, String)   \
    X(enforced_by, String)                          \
    X(primary_anomaly_category, String)             \
    X(mobile_debugger_enabled_device, String)       \
    X(is_update_request, Bool)                      \
    X(challenge_failure_reason, String)             \
    X(http_protocol_info, String)

// The address sub-record: five unsigned 32-bit numbers.
#define QEL_ADDRESS_FIELDS(X) \
    X(ip0, UInt32)            \
    X(ip1, UInt32)            \
    X(ip2, UInt32)            \
    X(ip3, UInt32)            \
    X(rtdom_id, UInt32)

#endif
