// orva-api [--root DIR] API VERSION METHOD [PARAMS-JSON]: calls the web API over the
// Unix socket run/orva/webapi.sock as the calling account, prints the reply and exits
// 0 on success, 1 on an API error, 2 when the call could not be made.
#include <errno.h>

#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <utility>  // before Asio: its awaitable.hpp uses std::exchange

#include <boost/asio.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <json/json.h>

#include "core/json_read.h"
#include "core/program.h"
#include "core/root.h"

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;

namespace {

void Usage(FILE* out) {
  fprintf(out,
          "Usage: orva-api [--root DIR] API VERSION METHOD [PARAMS-JSON]\n"
          "Calls a web API method through the server's Unix socket as the calling account,\n"
          "prints the reply and exits 0 on success, 1 on an API error, 2 when the call\n"
          "could not be made.\n"
          "  --root DIR   system root (default: $ORVA_ROOT, else /)\n"
          "  --help       this text\n"
          "Example: orva-api ORVA.API.Info 1 query\n");
}

}  // namespace

int main(int argc, char** argv) {
  static const option opts[] = {
      ORVA::kRootOption,
      {"help", no_argument, nullptr, 'h'},
      {nullptr, 0, nullptr, 0},
  };
  int c;
  while ((c = ORVA::GetOpt(argc, argv, "+", opts)) != -1) {
    switch (c) {
      case 'h': Usage(stdout); return 0;
      default: Usage(stderr); return 2;
    }
  }
  int nargs = argc - optind;
  if (nargs < 3 || nargs > 4) {
    Usage(stderr);
    return 2;
  }
  long version = 0;
  if (!ORVA::ParseLong(argv[optind + 1], INT32_MIN, INT32_MAX, &version)) {
    fprintf(stderr, "orva-api: VERSION must be an integer, not \"%s\"\n", argv[optind + 1]);
    return 2;
  }
  Json::Value body(Json::objectValue);
  body["api"] = argv[optind];
  body["version"] = static_cast<int>(version);
  body["method"] = argv[optind + 2];
  if (nargs == 4) {
    Json::Value params;
    std::string errs;
    if (!ORVA::JsonParse(argv[optind + 3], &params, &errs) || !params.isObject()) {
      fprintf(stderr, "orva-api: PARAMS-JSON must be a JSON object: %s\n", errs.c_str());
      return 2;
    }
    body["params"] = params;
  }
  Json::StreamWriterBuilder w;
  w["indentation"] = "";

  const std::string sock = ORVA::ORVAPathMap("/run/orva/webapi.sock");
  try {
    asio::io_context ioc;
    asio::local::stream_protocol::socket s(ioc);
    s.connect(asio::local::stream_protocol::endpoint(sock));
    http::request<http::string_body> req{http::verb::post, "/webapi/entry", 11};
    req.set(http::field::host, "localhost");
    req.set(http::field::content_type, "application/json");
    req.body() = Json::writeString(w, body);
    req.prepare_payload();
    http::write(s, req);
    beast::flat_buffer buf;
    http::response_parser<http::string_body> parser;
    parser.body_limit(64 * 1024 * 1024);
    http::read(s, buf, parser);
    const std::string& text = parser.get().body();
    Json::Value reply;
    std::string errs;
    if (!ORVA::JsonParse(text, &reply, &errs) || !reply.isObject()) {
      fprintf(stderr, "orva-api: the server's reply is not JSON (HTTP %u): %s\n", parser.get().result_int(),
              text.c_str());
      return 2;
    }
    Json::StreamWriterBuilder pretty;
    pretty["indentation"] = "  ";
    pretty["emitUTF8"] = true;
    std::cout << Json::writeString(pretty, reply) << std::endl;
    return reply["success"].asBool() ? 0 : 1;
  } catch (const std::exception& e) {
    fprintf(stderr, "orva-api: cannot call %s: %s\n", sock.c_str(), e.what());
    return 2;
  }
}
