include $(sort $(wildcard $(BR2_EXTERNAL_FOTA_PATH)/package/*/*.mk))
