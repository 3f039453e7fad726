include $(sort $(wildcard $(BR2_EXTERNAL_NOLVAR_PATH)/package/*/*.mk))
