#include <algorithm>
#include <charconv>
#include <chrono>
#include <list>
#include <utility>

#include "update/https_transport.h"

#define CURL_DISABLE_TYPECHECK  // its macros don't see through `Options::set`
#include <curl/curl.h>

#include "core/text.h"
#include "update/signature.h"

namespace nvo {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr const char* kUserAgent = "nvo_rip_update/1.0";
constexpr std::size_t kMaxHeaderBytes = 0x40000;
/// The library doesn't always wake for the second address of a name whose first one is silent (curl issue
/// 11920).
constexpr milliseconds kLongestNap{100};

template <class T, auto free_object>
struct Deleter {
  void operator()(T* object) const { free_object(object); }
};
using UrlHandle = std::unique_ptr<CURLU, Deleter<CURLU, curl_url_cleanup>>;
using Headers = std::unique_ptr<curl_slist, Deleter<curl_slist, curl_slist_free_all>>;
using Easy = std::unique_ptr<CURL, Deleter<CURL, curl_easy_cleanup>>;
using Multi = std::unique_ptr<CURLM, Deleter<CURLM, curl_multi_cleanup>>;

std::string url_part(const UrlHandle& url, CURLUPart part) {
  char* text = nullptr;
  if (curl_url_get(url.get(), part, &text, 0) != CURLUE_OK) return {};
  std::string copy = text;
  curl_free(text);
  return copy;
}

HttpsAnswer failed(const char* step, int code) {
  HttpsAnswer answer;
  answer.error = step + std::string(" failed (code=") + std::to_string(code) + ")";
  answer.error_code = code;
  return answer;
}

HttpsAnswer failed_exchange(int code) {
  return failed("WinHTTP send/receive", code);
}

/// The first option that the library refuses decides.
class Options {
 public:
  explicit Options(CURL* easy) : easy_(easy) {}

  template <class T>
  void set(CURLoption option, T value) {
    if (code_ == CURLE_OK) code_ = curl_easy_setopt(easy_, option, value);
  }
  CURLcode code() const { return code_; }

 private:
  CURL* easy_;
  CURLcode code_ = CURLE_OK;
};

/// One piece of work in the library's hands: from `start` on it moves whenever the multi handle is stepped.
class Transfer {
 public:
  Transfer() : easy_(curl_easy_init()) {}
  ~Transfer() {
    if (multi_) curl_multi_remove_handle(multi_, easy_.get());
  }
  Transfer(const Transfer&) = delete;
  Transfer& operator=(const Transfer&) = delete;

  CURL* easy() const { return easy_.get(); }
  void start(CURLM* multi) {
    begun_ = Clock::now();
    curl_easy_setopt(easy_.get(), CURLOPT_PRIVATE, this);
    if (curl_multi_add_handle(multi, easy_.get()) == CURLM_OK)
      multi_ = multi;
    else
      result_ = CURLE_FAILED_INIT;
  }
  void finish(CURLcode code) { result_ = code; }
  const std::optional<CURLcode>& result() const { return result_; }
  Clock::time_point begun() const { return begun_; }

  curl_off_t info(CURLINFO what) const {
    curl_off_t value = 0;
    curl_easy_getinfo(easy_.get(), what, &value);
    return value;
  }
  std::uint32_t http_status() const {
    long status = 0;
    curl_easy_getinfo(easy_.get(), CURLINFO_RESPONSE_CODE, &status);
    return static_cast<std::uint32_t>(status);
  }

 private:
  Easy easy_;
  CURLM* multi_ = nullptr;
  Clock::time_point begun_;
  std::optional<CURLcode> result_;
};

/// A connection that is refused as soon as the name of the server, or of the proxy before it, is found: the
/// address stays in the cache of the multi handle.
struct LookUp {
  std::string url;
  Transfer transfer;
  bool found = false;

  static curl_socket_t refuse_socket(void* self, curlsocktype, curl_sockaddr*) {
    static_cast<LookUp*>(self)->found = true;
    return CURL_SOCKET_BAD;
  }
};

/// Takes a response up to its limits.
struct Response {
  explicit Response(std::size_t max_body) : max(max_body) { body.reserve(max_body); }

  static std::size_t take_body(char* bytes, std::size_t, std::size_t size, void* self) {
    auto& response = *static_cast<Response*>(self);
    if (size > response.max - response.body.size()) return response.refuse();
    response.body.append(bytes, size);  // within what is reserved: nothing throws through the library
    return size;
  }
  static std::size_t take_header(char*, std::size_t, std::size_t size, void* self) {
    auto& response = *static_cast<Response*>(self);
    if (size > kMaxHeaderBytes - response.header_bytes) return response.refuse();
    response.header_bytes += size;
    return size;
  }
  std::size_t refuse() {
    too_large = true;
    return 0;
  }

  std::string body;
  std::size_t max;
  std::size_t header_bytes = 0;
  bool too_large = false;
};

/// The library's own limit, of one header, shows as a failed allocation; later versions have a code for it.
bool means_too_long_a_header(CURLcode code) {
  constexpr int kTooLarge = 100;
  return code == CURLE_OUT_OF_MEMORY || static_cast<int>(code) == kTooLarge;
}

enum class Phase { connect, send, receive };

Phase phase_of(const Transfer& transfer, std::size_t request_size) {
  if (transfer.info(CURLINFO_SIZE_UPLOAD_T) >= static_cast<curl_off_t>(request_size)) return Phase::receive;
  return transfer.info(CURLINFO_PRETRANSFER_TIME_T) > 0 ? Phase::send : Phase::connect;
}

milliseconds limit_of(Phase phase, const TransportLimits& limits) {
  switch (phase) {
    case Phase::connect:
      return limits.connect;
    case Phase::send:
      return limits.send;
    case Phase::receive:
      break;
  }
  return limits.receive;
}

/// Names below "invalid" exist nowhere (RFC 6761), so nobody has to be asked for them.
bool is_never_a_host(std::string_view host) {
  constexpr std::string_view kReserved = ".invalid";
  if (!host.empty() && host.back() == '.') host.remove_suffix(1);
  const std::string name = "." + ascii_lower(host);
  return name.size() >= kReserved.size() && name.ends_with(kReserved);
}

Headers json_headers() {
  Headers headers(curl_slist_append(nullptr, "Content-Type: application/json"));
  // Appending to a list returns its unchanged head.
  if (!headers || !curl_slist_append(headers.get(), "Accept: application/json")) return {};
  return headers;
}

CURLcode library_state() {
  start_crypto();
  static const CURLcode state = curl_global_init(CURL_GLOBAL_DEFAULT);
  return state;
}

}  // namespace

/// Every request comes after a look-up of its own, which is how name and connection each get their limit: the
/// library itself counts both as one.
class HttpsTransport::Session {
 public:
  Session(TransportLimits limits, std::string ca_file, std::size_t max_body)
      : limits_(limits), ca_file_(std::move(ca_file)), max_body_(max_body) {}

  void look_up(const std::string& url) {
    const auto parsed = parse_url(url);
    if (!parsed || is_never_a_host(parsed->host) || find_look_up(url) || !open()) return;
    LookUp& look_up = look_ups_.emplace_back();
    look_up.url = url;
    if (!look_up.transfer.easy()) return look_up.transfer.finish(CURLE_FAILED_INIT);
    Options options(look_up.transfer.easy());
    set_connection(options, url);
    options.set(CURLOPT_OPENSOCKETFUNCTION, &LookUp::refuse_socket);
    options.set(CURLOPT_OPENSOCKETDATA, &look_up);
    if (options.code() != CURLE_OK) return look_up.transfer.finish(options.code());
    look_up.transfer.start(multi_.get());
    step();
  }

  HttpsAnswer post(const std::string& url, std::string_view json) {
    const auto parsed = parse_url(url);
    if (parsed && is_never_a_host(parsed->host)) return failed_exchange(CURLE_COULDNT_RESOLVE_HOST);
    if (!open()) return failed("WinHttpOpen", CURLE_FAILED_INIT);
    look_up(url);
    if (LookUp* name = find_look_up(url)) {
      const CURLcode code = wait(name->transfer, [&] { return name->transfer.begun() + limits_.resolve; });
      if (!name->found) return failed_exchange(code);
    }
    return exchange(url, json);
  }

 private:
  bool open() {
    if (!multi_ && library_state() == CURLE_OK) multi_.reset(curl_multi_init());
    return multi_ != nullptr;
  }

  LookUp* find_look_up(const std::string& url) {
    const auto found = std::find_if(look_ups_.begin(), look_ups_.end(),
                                    [&](const LookUp& look_up) { return look_up.url == url; });
    return found == look_ups_.end() ? nullptr : &*found;
  }

  /// What look-up and request have in common; the proxy is the system's by the library's own rule.
  void set_connection(Options& options, const std::string& url) const {
    options.set(CURLOPT_URL, url.c_str());
    options.set(CURLOPT_PROTOCOLS_STR, "https");
    options.set(CURLOPT_FOLLOWLOCATION, 0L);
    options.set(CURLOPT_NOSIGNAL, 1L);
    options.set(CURLOPT_QUICK_EXIT, 1L);  // a resolver that is still busy is left behind, not waited for
    options.set(CURLOPT_HTTP_VERSION, long{CURL_HTTP_VERSION_1_1});
    options.set(CURLOPT_SSLVERSION, long{CURL_SSLVERSION_TLSv1_2});
    options.set(CURLOPT_SSL_VERIFYPEER, 1L);
    options.set(CURLOPT_SSL_VERIFYHOST, 2L);
    if (ca_file_.empty()) return;
    options.set(CURLOPT_CAINFO, ca_file_.c_str());
    options.set(CURLOPT_CAPATH, static_cast<const char*>(nullptr));
  }

  void set_request(Options& options, const Headers& headers, std::string_view json,
                   Response& response) const {
    // With a limit of its own the library leaves a silent address in time to try the next one.
    options.set(CURLOPT_CONNECTTIMEOUT_MS, static_cast<long>(limits_.connect.count()));
    options.set(CURLOPT_HTTPHEADER, headers.get());
    options.set(CURLOPT_USERAGENT, kUserAgent);
    options.set(CURLOPT_POST, 1L);
    options.set(CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(json.size()));
    options.set(CURLOPT_POSTFIELDS, json.data());
    options.set(CURLOPT_WRITEFUNCTION, &Response::take_body);
    options.set(CURLOPT_WRITEDATA, &response);
    options.set(CURLOPT_HEADERFUNCTION, &Response::take_header);
    options.set(CURLOPT_HEADERDATA, &response);
  }

  HttpsAnswer exchange(const std::string& url, std::string_view json) {
    Response response(max_body_);
    Headers headers;  // outlives the transfer, as the response does
    Transfer transfer;
    if (!transfer.easy()) return failed("WinHttpOpen", CURLE_FAILED_INIT);

    Options options(transfer.easy());
    set_connection(options, url);
    if (options.code() != CURLE_OK) return failed("WinHttpConnect", options.code());

    headers = json_headers();
    if (!headers) return failed("WinHttpOpenRequest", CURLE_OUT_OF_MEMORY);
    set_request(options, headers, json, response);
    if (options.code() != CURLE_OK) return failed("WinHttpOpenRequest", options.code());

    const CURLcode code = perform(transfer, json.size());
    if (response.too_large || (transfer.http_status() != 0 && means_too_long_a_header(code)))
      return {true, transfer.http_status(), {}, "Update response exceeds maximum allowed size", 0};
    if (code != CURLE_OK) return failed_exchange(code);
    return {true, transfer.http_status(), std::move(response.body), {}, 0};
  }

  CURLcode perform(Transfer& transfer, std::size_t request_size) {
    transfer.start(multi_.get());
    Phase phase = Phase::connect;
    auto since = transfer.begun();
    return wait(transfer, [&] {
      const Phase now_in = phase_of(transfer, request_size);
      if (now_in != phase) phase = now_in, since = Clock::now();
      return since + limit_of(phase, limits_);
    });
  }

  /// Works on everything that was started until `transfer` is done or its deadline, asked for anew after
  /// every step, has passed.
  template <class Deadline>
  CURLcode wait(Transfer& transfer, Deadline deadline) {
    while (!transfer.result()) {
      const CURLMcode state = step();
      if (transfer.result()) break;
      const auto left = std::chrono::ceil<milliseconds>(deadline() - Clock::now());
      if (state != CURLM_OK)
        transfer.finish(CURLE_FAILED_INIT);
      else if (left <= milliseconds(0))
        transfer.finish(CURLE_OPERATION_TIMEDOUT);
      else
        curl_multi_poll(multi_.get(), nullptr, 0, static_cast<int>(std::min(left, kLongestNap).count()),
                        nullptr);
    }
    return *transfer.result();
  }

  /// Does what can be done without waiting and notes what ended.
  CURLMcode step() {
    int count = 0;
    const CURLMcode state = curl_multi_perform(multi_.get(), &count);
    while (const CURLMsg* message = curl_multi_info_read(multi_.get(), &count)) {
      Transfer* transfer = nullptr;
      curl_easy_getinfo(message->easy_handle, CURLINFO_PRIVATE, &transfer);
      if (message->msg == CURLMSG_DONE && transfer) transfer->finish(message->data.result);
    }
    return state;
  }

  TransportLimits limits_;
  std::string ca_file_;
  std::size_t max_body_;
  Multi multi_;
  std::list<LookUp> look_ups_;  // end before the handle that drives them
};

std::optional<Url> parse_url(const std::string& text) {
  const UrlHandle handle(curl_url());
  if (!handle || text.find('\0') != std::string::npos) return std::nullopt;
  if (curl_url_set(handle.get(), CURLUPART_URL, text.c_str(), CURLU_NON_SUPPORT_SCHEME) != CURLUE_OK)
    return std::nullopt;
  Url url{url_part(handle, CURLUPART_SCHEME), url_part(handle, CURLUPART_HOST), 0};
  const std::string port = url_part(handle, CURLUPART_PORT);
  std::from_chars(port.data(), port.data() + port.size(), url.port);  // the library lets no other text pass
  return url;
}

HttpsTransport::HttpsTransport(TransportLimits limits, std::string ca_file, std::size_t max_body)
    : session_(std::make_unique<Session>(limits, std::move(ca_file), max_body)) {}

HttpsTransport::~HttpsTransport() = default;

void HttpsTransport::look_up_early(const std::vector<std::string>& urls) {
  for (const std::string& url : urls) session_->look_up(url);
}

HttpsAnswer HttpsTransport::post(const std::string& url, std::string_view json) {
  return session_->post(url, json);
}

}  // namespace nvo
