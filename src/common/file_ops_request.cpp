#include "common/file_ops_request.h"

#include <cstring>

#include "common/file_helpers.h"
#include "common/text.h"
#include "core/log.h"

void handle_fota_file_ops(fota_event_msg* msg) {
    fota_file_ops* ops = &msg->payload.file_ops;
    // One byte longer than the field: a path that fills it is taken whole, a cut one would name another file.
    char path[sizeof ops->fops_path + 1];
    text_copy(path, ops->fops_path);

    msg->result = FOTA_RC_INVALID_PARAM;
    switch (ops->fops_code) {
        case FOTA_FOPS_CREATE_ONLY:
            LOG_NOTICE("FOTA_FOPS_CREATE_ONLY, fpath:%s\n", path);
            msg->result = fota_create_a_file(path, nullptr, 0);
            break;
        case FOTA_FOPS_CREATE_AND_WRITE:
            LOG_NOTICE("FOTA_FOPS_CREATE_AND_WRITE, fpath:%s, data len:%u\n", path, ops->fops_data_len);
            if (ops->fops_data_len <= sizeof ops->fops_data) {
                msg->result = fota_create_a_file(path, ops->fops_data, ops->fops_data_len);
            }
            break;
        case FOTA_FOPS_READ_STR: {
            LOG_NOTICE("FOTA_FOPS_READ_STR, fpath:%s\n", path);
            char text[FOTA_TEXT_SIZE];
            msg->result = fota_read_str_from_file(path, text);
            memcpy(ops->fops_data, text, sizeof text);
            if (msg->result == FOTA_RC_SUCCESS) ops->fops_data_len = static_cast<uint32_t>(strlen(text));
            break;
        }
        case FOTA_FOPS_READ_UINT32: {
            LOG_NOTICE("FOTA_FOPS_READ_UINT32, fpath:%s\n", path);
            uint32_t value = 0;
            msg->result = fota_read_str_conv_to_uint32(path, &value);
            memcpy(ops->fops_data, &value, sizeof value);
            if (msg->result == FOTA_RC_SUCCESS) ops->fops_data_len = sizeof value;
            break;
        }
        case FOTA_FOPS_REMOVE:
            LOG_NOTICE("FOTA_FOPS_REMOVE, fpath:%s\n", path);
            msg->result = fota_remove_a_file(path);
            break;
        default:
            LOG_ERROR("Unknown file operation:%d\n", static_cast<int>(ops->fops_code));
            break;
    }
}
