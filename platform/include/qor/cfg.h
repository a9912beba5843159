// qor/cfg.h -- client side of the configuration store.
//
// The daemon writes its own running-configuration lines: a 552-byte record
// (key bytes at 0, configuration identifier at 256, key length at 264, the
// line text from 268, zero-terminated) is inserted or removed by key; an
// 812-byte sync record tells the store (and the standby) what changed on an
// interface. These calls send the record to the configuration store's
// request queue (application QOR_APP_CFGSTORE, qor/chassis.h) and do not
// wait: the store applies messages in the order they arrive.
// qorPortCfgNotif sends a 132-byte port notice to the IFM and waits for its
// answer: the IFM may refuse it.
#pragma once

#include <cstddef>
#include <cstdint>

constexpr size_t QOR_CFG_RECORD_LEN = 552;
constexpr size_t QOR_CFG_OFF_KEY = 0;
constexpr size_t QOR_CFG_KEY_MAX = 256;
constexpr size_t QOR_CFG_OFF_ID = 256;
constexpr size_t QOR_CFG_OFF_KEYLEN = 264;
constexpr size_t QOR_CFG_OFF_LINE = 268;
constexpr size_t QOR_CFG_LINE_MAX = QOR_CFG_RECORD_LEN - QOR_CFG_OFF_LINE;  // with its zero
constexpr size_t QOR_CFG_SYNC_LEN = 812;
constexpr size_t QOR_PORT_NOTICE_LEN = 132;

// 0, or non-zero when the record could not be delivered.
int qorCfgInsert(int taskKey, const uint8_t* record552);
int qorCfgRemoveExact(int taskKey, const uint8_t* record552);
// Removes every line whose key starts with the record's key bytes.
int qorCfgRemoveNode(int taskKey, const uint8_t* record552);
int qorCfgSync(int taskKey, const uint8_t* sync812);
// 0 accepted; non-zero refused or no answer.
int qorPortCfgNotif(int taskKey, const uint8_t* notice132);
