#include "answers.h"

#include "common/cfgfile.h"
#include "common/log.h"
#include "usermanagement/usermgnt.h"

#include <cstring>
#include <mutex>
#include <string_view>

namespace {

constexpr int kProgressStep = 20;
constexpr int kProgressPauseMs = 100;  // between two upgrade progress replies
constexpr int kLongestDelayMs = 600000;  // beyond any time-out of the server

constexpr const char kWifiDefaults[] =
    R"({"Enable":1,"Mode":"STA","SSID":"Workshop-2G","EncryptType":"WPA2-PSK","DHCP":1,)"
    R"("IPAddress":"192.168.10.64","SubnetMask":"255.255.255.0","Gateway":"192.168.10.1","DNS":"192.168.10.1"})";
constexpr const char kHotspots[] =
    R"({"HotspotList":[{"SSID":"Workshop-2G","Signal":-48,"Channel":6,"EncryptType":"WPA2-PSK"},)"
    R"({"SSID":"Workshop-5G","Signal":-61,"Channel":44,"EncryptType":"WPA2-PSK"},)"
    R"({"SSID":"Guest","Signal":-77,"Channel":11,"EncryptType":"NONE"}]})";

CJsonPtr scenario;
// The WIFI settings as the network application holds them; sockets are served in threads.
std::mutex wifi_mutex;
CJsonPtr wifi_settings(cJSON_Parse(kWifiDefaults));

CJsonPtr ok_response()
{
    CJsonPtr r(cJSON_CreateObject());
    cJSON_AddStringToObject(r.get(), "Result", "OK");
    return r;
}

void add_reply(SimPlan *plan, CJsonPtr response, int delay_ms = 0)
{
    SimReply reply;
    reply.delay_ms = delay_ms;
    reply.response = std::move(response);
    plan->push_back(std::move(reply));
}

// Checked against the web server's account file, read only: a missing or damaged file counts
// as the default account, as the server would make it.
bool account_matches(const char *user, const char *password)
{
    UsermgntConfig accounts{};
    if (http_get_cfgfile(USERMGNT_PARA_FILE, &accounts, sizeof accounts) != 0)
        usermgnt_default(&accounts);
    for (const UsermgntUser &a : accounts.user) {
        if (a.user_name[0] != '\0' && usermgnt_field_is(a.user_name, user) && usermgnt_field_is(a.password, password))
            return true;
    }
    return false;
}

void verify_password(const cJSON *params, SimPlan *plan)
{
    const cJSON *user = cJSON_GetObjectItemCaseSensitive(params, "UserName");
    const cJSON *password = cJSON_GetObjectItemCaseSensitive(params, "Password");
    bool valid = cJSON_IsString(user) && cJSON_IsString(password) &&
                 account_matches(user->valuestring, password->valuestring);
    CJsonPtr r = ok_response();
    cJSON *p = cJSON_AddObjectToObject(r.get(), "Parameters");
    cJSON_AddNumberToObject(p, "PassValidation", valid ? 1 : 0);
    add_reply(plan, std::move(r));
}

void get_wifi(const cJSON *, SimPlan *plan)
{
    CJsonPtr r = ok_response();
    std::lock_guard<std::mutex> lock(wifi_mutex);
    cJSON_AddItemToObject(r.get(), "Parameters", cJSON_Duplicate(wifi_settings.get(), true));
    add_reply(plan, std::move(r));
}

// Takes over the members given, as the network application stores a partial update.
void set_wifi(const cJSON *params, SimPlan *plan)
{
    if (!cJSON_IsObject(params)) {
        CJsonPtr r(cJSON_CreateObject());
        cJSON_AddStringToObject(r.get(), "Result", "Fail");
        cJSON_AddStringToObject(r.get(), "Reason", "Invalid params");
        add_reply(plan, std::move(r));
        return;
    }
    std::lock_guard<std::mutex> lock(wifi_mutex);
    for (const cJSON *item = params->child; item; item = item->next) {
        cJSON_DeleteItemFromObjectCaseSensitive(wifi_settings.get(), item->string);
        cJSON_AddItemToObject(wifi_settings.get(), item->string, cJSON_Duplicate(item, true));
    }
    add_reply(plan, ok_response());
}

void scan_wifi(const cJSON *, SimPlan *plan)
{
    CJsonPtr r = ok_response();
    cJSON_AddItemToObject(r.get(), "Parameters", cJSON_Parse(kHotspots));
    add_reply(plan, std::move(r));
}

void start_upgrade(const cJSON *, SimPlan *plan)
{
    for (int value = 0; value <= 100; value += kProgressStep) {
        CJsonPtr r = ok_response();
        cJSON *p = cJSON_AddObjectToObject(r.get(), "Parameters");
        cJSON_AddNumberToObject(p, "UpgradeProgressValue", value);
        add_reply(plan, std::move(r), value == 0 ? 0 : kProgressPauseMs);
    }
}

struct Builtin {
    const char *command;
    void (*answer)(const cJSON *params, SimPlan *plan);
};
constexpr Builtin kBuiltins[] = {
    {"VerifyPassword", verify_password},
    {"GetNetworkWIFIParameters", get_wifi},
    {"SetNetworkWIFIParameters", set_wifi},
    {"GetScanWIFIHotspot", scan_wifi},
    {"StartUpgrade", start_upgrade},
};

SimPlan builtin_plan(const char *command, const cJSON *params)
{
    SimPlan plan;
    for (const Builtin &b : kBuiltins) {
        if (strcmp(command, b.command) == 0) {
            b.answer(params, &plan);
            return plan;
        }
    }
    add_reply(&plan, ok_response());
    return plan;
}

// Scenario checks: the members an entry and a reply item may have, with their types.
bool refuse(const char *path, const char *command, const char *why)
{
    HTTP_PRINT("devicesim: scenario %s, command %s: %s\n", path, command, why);
    return false;
}

bool check_item(const char *path, const char *command, const cJSON *item, bool is_entry)
{
    if (!cJSON_IsObject(item))
        return refuse(path, command, "not an object");
    for (const cJSON *m = item->child; m; m = m->next) {
        std::string_view key = m->string;
        bool ok = key == "Response" || (key == "raw" && cJSON_IsString(m)) ||
                  (key == "Command" && cJSON_IsString(m)) ||
                  (key == "delay_ms" && cJSON_IsNumber(m) && m->valuedouble >= 0 && m->valuedouble <= kLongestDelayMs) ||
                  (is_entry && key == "silent" && cJSON_IsBool(m)) ||
                  (is_entry && key == "replies" && cJSON_IsArray(m) && cJSON_GetArraySize(m) > 0);
        if (!ok)
            return refuse(path, command, (std::string("bad or unknown member ") + m->string).c_str());
        if (key == "replies") {
            for (const cJSON *r = m->child; r; r = r->next) {
                if (!check_item(path, command, r, false))
                    return false;
            }
        }
    }
    if (cJSON_HasObjectItem(item, "raw") && cJSON_HasObjectItem(item, "Response"))
        return refuse(path, command, "\"raw\" and \"Response\" exclude each other");
    return true;
}

int delay_of(const cJSON *item, int fallback)
{
    const cJSON *d = cJSON_GetObjectItemCaseSensitive(item, "delay_ms");
    return cJSON_IsNumber(d) ? d->valueint : fallback;
}

SimReply reply_of(const cJSON *item, int delay_ms)
{
    SimReply reply;
    reply.delay_ms = delay_of(item, delay_ms);
    if (const cJSON *raw = cJSON_GetObjectItemCaseSensitive(item, "raw"))
        reply.raw = raw->valuestring;
    if (const cJSON *command = cJSON_GetObjectItemCaseSensitive(item, "Command"))
        reply.command = command->valuestring;
    reply.response.reset(cJSON_Duplicate(cJSON_GetObjectItemCaseSensitive(item, "Response"), true));
    return reply;
}

} // namespace

bool sim_load_scenario(const char *path)
{
    int len = 0;
    HeapText text(http_get_datafile(path, &len));
    if (!text) {
        HTTP_PRINT("devicesim: cannot read scenario %s\n", path);
        return false;
    }
    scenario.reset(cJSON_Parse(text.get()));
    if (!cJSON_IsObject(scenario.get())) {
        HTTP_PRINT("devicesim: scenario %s is not a JSON object\n", path);
        return false;
    }
    for (const cJSON *entry = scenario->child; entry; entry = entry->next) {
        if (!check_item(path, entry->string, entry, true))
            return false;
    }
    return true;
}

SimPlan sim_plan_for(const char *command, const cJSON *params)
{
    const cJSON *entry = cJSON_GetObjectItemCaseSensitive(scenario.get(), command);
    if (!entry)
        return builtin_plan(command, params);
    if (cJSON_IsTrue(cJSON_GetObjectItemCaseSensitive(entry, "silent")))
        return {};
    SimPlan plan;
    int delay_ms = delay_of(entry, 0);
    if (const cJSON *replies = cJSON_GetObjectItemCaseSensitive(entry, "replies")) {
        for (const cJSON *item = replies->child; item; item = item->next)
            plan.push_back(reply_of(item, delay_ms));
    } else if (cJSON_HasObjectItem(entry, "Response") || cJSON_HasObjectItem(entry, "raw")) {
        plan.push_back(reply_of(entry, delay_ms));
    } else {
        // Only a delay or a "Command": the built-in answer, changed accordingly.
        plan = builtin_plan(command, params);
        const cJSON *echo = cJSON_GetObjectItemCaseSensitive(entry, "Command");
        for (SimReply &reply : plan) {
            reply.delay_ms = delay_of(entry, reply.delay_ms);
            if (echo)
                reply.command = echo->valuestring;
        }
    }
    return plan;
}
