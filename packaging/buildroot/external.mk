include $(sort $(wildcard $(BR2_EXTERNAL_BOARDKIT_PATH)/package/*/*.mk))
