include $(sort $(wildcard $(BR2_EXTERNAL_UPGRADEMAIN_PATH)/package/*/*.mk))
