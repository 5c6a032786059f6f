#include "device_support.h"

#include "common/owners.h"

#include <cjson/cJSON.h>
#include <gtest/gtest.h>

namespace ts {

namespace {

std::string print(cJSON *obj)
{
    HeapText text(cJSON_Print(obj));
    cJSON_Delete(obj);
    return text.get();
}

cJSON *envelope(const char *result)
{
    cJSON *obj = cJSON_CreateObject();
    cJSON_AddStringToObject(obj, "Result", result);
    return obj;
}

} // namespace

Device::Device(int port, const std::string &scenario, const std::string &command_para) : port_(port)
{
    lay_out_demo_tree();
    if (!command_para.empty())
        write_file(std::string(kWebRoot) + "/config/command_para", command_para);
    std::vector<std::string> sim_argv{bin_path("devicesim"), std::string(kWebRoot) + "/config/command_para"};
    if (!scenario.empty()) {
        write_file("/tmp/scenario.json", scenario);
        sim_argv.push_back("/tmp/scenario.json");
    }
    sim_ = std::make_unique<Process>(sim_argv, "/tmp/devicesim.log");
    EXPECT_TRUE(sim_->wait_for_log("devicesim: ready\n", 5000)) << sim_->log();
    server_ = std::make_unique<ServerProcess>(std::vector<std::string>{std::to_string(port), "lo"});
    EXPECT_TRUE(server_->wait_ready(port)) << server_->log();
}

Device::~Device()
{
    server_.reset();
    sim_.reset();
}

HttpReply Device::call(const std::string &action, const std::string &query, const std::string &body)
{
    HttpRequest req;
    req.method = "POST";
    req.url = local_url(port_, "/action/device/" + action + (query.empty() ? "" : "?" + query));
    req.body = body;
    return http(req);
}

std::string Device::login(int timeout)
{
    HttpReply r = call("login", "",
                       std::string(R"({"username":"admin","password":")") + kAdminDigest +
                           R"(","timeout":)" + std::to_string(timeout) + "}");
    CJsonPtr tree(cJSON_Parse(r.body.c_str()));
    const cJSON *id = cJSON_GetObjectItemCaseSensitive(tree.get(), "sessionid");
    return cJSON_IsString(id) ? id->valuestring : "";
}

std::string Device::server_log() const { return server_->log(); }
std::string Device::sim_log() const { return sim_->log(); }

size_t occurrences(const std::string &text, const std::string &part)
{
    size_t n = 0;
    for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1))
        ++n;
    return n;
}

std::string coded_failure(int code, const std::string &reason)
{
    cJSON *obj = envelope("Fail");
    cJSON_AddNumberToObject(obj, "ErrorNo", code);
    cJSON_AddStringToObject(obj, "Reason", reason.c_str());
    return print(obj);
}

std::string failure_text(const std::string &reason)
{
    cJSON *obj = envelope("Fail");
    cJSON_AddStringToObject(obj, "Reason", reason.c_str());
    return print(obj);
}

std::string success_text(const std::string &reason)
{
    cJSON *obj = envelope("OK");
    cJSON_AddStringToObject(obj, "Reason", reason.c_str());
    return print(obj);
}

std::string plain_ok() { return print(envelope("OK")); }

std::string params_success(const std::string &reason, const std::string &raw)
{
    cJSON *obj = envelope("OK");
    cJSON_AddStringToObject(obj, "Reason", reason.c_str());
    cJSON_AddRawToObject(obj, "Parameters", raw.c_str());
    return print(obj);
}

} // namespace ts
