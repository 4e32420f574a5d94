#include "net/http_session.h"

#include <curl/curl.h>

#include <algorithm>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <thread>
#include <unordered_map>

#include "base/strings.h"
#include "net/url.h"

namespace qev::net {
namespace {

constexpr int kMaxRedirects = 10;

void ensureCurlInitialised() {
  // Process-wide library set-up, done once before the first handle exists.
  static const bool initialised = curl_global_init(CURL_GLOBAL_DEFAULT) == CURLE_OK;
  (void)initialised;
}

bool equalsIgnoringCase(std::string_view a, std::string_view b) {
  return a.size() == b.size() && base::toLowerAscii(a) == base::toLowerAscii(b);
}

bool hasHeader(const HeaderList& headers, std::string_view name) {
  return std::any_of(headers.begin(), headers.end(),
                     [name](const auto& header) { return equalsIgnoringCase(header.first, name); });
}

// Lets completions run until stop(), and makes stop() wait for one that is running (unless
// stop() is called from inside it).
class DeliveryGate {
 public:
  template <class Fn>
  void run(Fn&& fn) {
    {
      std::lock_guard lock(mutex_);
      if (stopped_) return;
      runningOn_ = std::this_thread::get_id();
    }
    fn();
    {
      std::lock_guard lock(mutex_);
      runningOn_.reset();
    }
    idle_.notify_all();
  }

  void close() {
    std::unique_lock lock(mutex_);
    stopped_ = true;
    if (runningOn_ == std::this_thread::get_id()) return;
    idle_.wait(lock, [this] { return !runningOn_.has_value(); });
  }

 private:
  std::mutex mutex_;
  std::condition_variable idle_;
  bool stopped_ = false;
  std::optional<std::thread::id> runningOn_;
};

// One request on its way, across redirects.
struct Transfer {
  HttpRequest request;
  HttpCompletion completion;
  std::chrono::steady_clock::time_point deadline;
  int redirects = 0;

  CURL* easy = nullptr;
  curl_slist* headerList = nullptr;
  char errorBuffer[CURL_ERROR_SIZE] = {};
  HttpResponse response;
  bool tooLarge = false;

  ~Transfer() { release(); }
  void release() {
    if (easy) curl_easy_cleanup(easy);
    easy = nullptr;
    if (headerList) curl_slist_free_all(headerList);
    headerList = nullptr;
  }
};

size_t onBody(char* data, size_t size, size_t count, void* user) {
  auto* transfer = static_cast<Transfer*>(user);
  if (transfer->request.onData) {
    return transfer->request.onData(std::string_view(data, size * count)) ? size * count : 0;
  }
  const std::size_t limit = transfer->request.maxBodyBytes.value_or(SIZE_MAX);
  if (size * count > limit - std::min(limit, transfer->response.body.size())) {
    transfer->tooLarge = true;
    return 0;  // aborts the transfer
  }
  transfer->response.body.append(data, size * count);
  return size * count;
}

size_t onHeader(char* data, size_t size, size_t count, void* user) {
  auto* transfer = static_cast<Transfer*>(user);
  std::string_view line(data, size * count);
  while (!line.empty() && (line.back() == '\n' || line.back() == '\r')) line.remove_suffix(1);
  auto& headers = transfer->response.headers;
  if (line.starts_with("HTTP/")) {
    headers.clear();  // a new response (after 1xx) replaces the interim one
  } else if (!line.empty() && (line.front() == ' ' || line.front() == '\t')) {
    if (!headers.empty()) {  // obsolete line folding continues the previous value
      headers.back().second += " ";
      headers.back().second += base::trimBlanks(line);
    }
  } else if (const auto colon = line.find(':'); colon != std::string_view::npos) {
    headers.emplace_back(std::string(line.substr(0, colon)),
                         std::string(base::trimBlanks(line.substr(colon + 1))));
  }
  return size * count;
}

bool isRedirect(long status) {
  return status == 301 || status == 302 || status == 303 || status == 307 || status == 308;
}

std::string originOf(const std::string& url) {
  const auto parsed = parseUrl(url);
  if (!parsed) return url;
  return parsed->scheme + "://" + parsed->host + ":" +
         (parsed->port ? std::to_string(*parsed->port) : "");
}

}  // namespace

bool isBodyTooLarge(const BridgeError& error) {
  return error.domain == "System" && error.description == kBodyTooLarge;
}

std::string describeMebibytes(std::size_t bytes) {
  return std::to_string(bytes >> 20) + " MiB";
}

std::string reasonPhrase(long status) {
  static const std::unordered_map<long, std::string_view> kPhrases = {
      {100, "Continue"},
      {101, "Switching Protocols"},
      {102, "Processing"},
      {103, "Early Hints"},
      {200, "OK"},
      {201, "Created"},
      {202, "Accepted"},
      {203, "Non-Authoritative Information"},
      {204, "No Content"},
      {205, "Reset Content"},
      {206, "Partial Content"},
      {207, "Multi-Status"},
      {208, "Already Reported"},
      {226, "IM Used"},
      {300, "Multiple Choices"},
      {301, "Moved Permanently"},
      {302, "Found"},
      {303, "See Other"},
      {304, "Not Modified"},
      {305, "Use Proxy"},
      {307, "Temporary Redirect"},
      {308, "Permanent Redirect"},
      {400, "Bad Request"},
      {401, "Unauthorized"},
      {402, "Payment Required"},
      {403, "Forbidden"},
      {404, "Not Found"},
      {405, "Method Not Allowed"},
      {406, "Not Acceptable"},
      {407, "Proxy Authentication Required"},
      {408, "Request Timeout"},
      {409, "Conflict"},
      {410, "Gone"},
      {411, "Length Required"},
      {412, "Precondition Failed"},
      {413, "Content Too Large"},
      {414, "URI Too Long"},
      {415, "Unsupported Media Type"},
      {416, "Range Not Satisfiable"},
      {417, "Expectation Failed"},
      {418, "I'm a teapot"},
      {421, "Misdirected Request"},
      {422, "Unprocessable Content"},
      {423, "Locked"},
      {424, "Failed Dependency"},
      {425, "Too Early"},
      {426, "Upgrade Required"},
      {428, "Precondition Required"},
      {429, "Too Many Requests"},
      {431, "Request Header Fields Too Large"},
      {451, "Unavailable For Legal Reasons"},
      {500, "Internal Server Error"},
      {501, "Not Implemented"},
      {502, "Bad Gateway"},
      {503, "Service Unavailable"},
      {504, "Gateway Timeout"},
      {505, "HTTP Version Not Supported"},
      {506, "Variant Also Negotiates"},
      {507, "Insufficient Storage"},
      {508, "Loop Detected"},
      {510, "Not Extended"},
      {511, "Network Authentication Required"},
  };
  const auto it = kPhrases.find(status);
  return it == kPhrases.end() ? std::string() : std::string(it->second);
}

class HttpSession::Impl {
 public:
  explicit Impl(base::Executors& executors)
      : queue_(executors.makeSerialQueue("qev.net.session")),
        gate_(std::make_shared<DeliveryGate>()) {
    ensureCurlInitialised();
    multi_ = curl_multi_init();
    // As many parallel connections to one host as a browser opens; more requests wait their turn.
    curl_multi_setopt(multi_, CURLMOPT_MAX_HOST_CONNECTIONS, 6L);
    worker_ = std::thread([this] { run(); });
  }

  ~Impl() { stop(); }

  void send(HttpRequest request, HttpCompletion completion) {
    auto transfer = std::make_unique<Transfer>();
    transfer->deadline = std::chrono::steady_clock::now() + request.timeout;
    transfer->request = std::move(request);
    transfer->completion = std::move(completion);
    std::lock_guard lock(mutex_);
    if (stopping_) return;
    pending_.push_back(std::move(transfer));
    curl_multi_wakeup(multi_);
  }

  void stop() {
    {
      std::lock_guard lock(mutex_);
      if (stopping_) return;
      stopping_ = true;
      curl_multi_wakeup(multi_);
    }
    if (worker_.joinable()) worker_.join();
    gate_->close();
    for (auto& [easy, transfer] : active_) curl_multi_remove_handle(multi_, easy);
    active_.clear();
    pending_.clear();
    curl_multi_cleanup(multi_);
    multi_ = nullptr;
  }

 private:
  void run() {
    for (;;) {
      std::vector<std::unique_ptr<Transfer>> incoming;
      {
        std::lock_guard lock(mutex_);
        if (stopping_) return;
        incoming.swap(pending_);
      }
      for (auto& transfer : incoming) start(std::move(transfer));

      int running = 0;
      curl_multi_perform(multi_, &running);
      int left = 0;
      while (CURLMsg* message = curl_multi_info_read(multi_, &left)) {
        if (message->msg != CURLMSG_DONE) continue;
        CURL* easy = message->easy_handle;
        const CURLcode code = message->data.result;
        curl_multi_remove_handle(multi_, easy);
        auto node = active_.extract(easy);
        if (!node.empty()) finish(std::move(node.mapped()), code);
      }
      curl_multi_poll(multi_, nullptr, 0, 1000, nullptr);
    }
  }

  // Configures a fresh handle for the transfer's current request and hands it to the multi.
  void start(std::unique_ptr<Transfer> transfer) {
    transfer->release();
    transfer->response = {};
    transfer->errorBuffer[0] = '\0';
    CURL* easy = curl_easy_init();
    if (!easy) {
      deliver(std::move(transfer->completion),
              BridgeError::system("Out of memory", static_cast<int>(CURLE_OUT_OF_MEMORY)));
      return;
    }
    transfer->easy = easy;
    const HttpRequest& request = transfer->request;
    Transfer* raw = transfer.get();

    curl_easy_setopt(easy, CURLOPT_URL, request.url.c_str());
    curl_easy_setopt(easy, CURLOPT_PRIVATE, raw);
    curl_easy_setopt(easy, CURLOPT_ERRORBUFFER, raw->errorBuffer);
    curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L);
    // The system proxy we switch on must never route our own requests back through the core.
    curl_easy_setopt(easy, CURLOPT_NOPROXY, "*");
    curl_easy_setopt(easy, CURLOPT_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(easy, CURLOPT_FOLLOWLOCATION, 0L);  // redirects are followed by finish()
    // A compressed stream would arrive in compressor-sized lumps, not line by line.
    if (!request.onData) curl_easy_setopt(easy, CURLOPT_ACCEPT_ENCODING, "");
    const auto remaining = std::chrono::duration_cast<std::chrono::milliseconds>(
        raw->deadline - std::chrono::steady_clock::now());
    const long budget = static_cast<long>(std::max<long long>(1, remaining.count()));
    if (request.onData) {
      // A stream lasts as long as the server keeps it open; only connecting is bounded.
      curl_easy_setopt(easy, CURLOPT_CONNECTTIMEOUT_MS, budget);
    } else {
      curl_easy_setopt(easy, CURLOPT_TIMEOUT_MS, budget);
    }
    curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, onBody);
    curl_easy_setopt(easy, CURLOPT_WRITEDATA, raw);
    curl_easy_setopt(easy, CURLOPT_HEADERFUNCTION, onHeader);
    curl_easy_setopt(easy, CURLOPT_HEADERDATA, raw);

    const std::string method = request.method.empty() ? "GET" : request.method;
    const bool sendsBody =
        request.body.has_value() || method == "POST" || method == "PUT" || method == "PATCH";
    if (method == "HEAD") {
      curl_easy_setopt(easy, CURLOPT_NOBODY, 1L);
    } else if (method != "GET" || sendsBody) {
      curl_easy_setopt(easy, CURLOPT_CUSTOMREQUEST, method.c_str());
    }
    if (sendsBody && method != "HEAD") {
      const std::string& body = request.body ? *request.body : kEmpty;
      curl_easy_setopt(easy, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(body.size()));
      curl_easy_setopt(easy, CURLOPT_POSTFIELDS, body.data());
    }

    for (const auto& [name, value] : request.headers) {
      // Line breaks would smuggle extra header lines; curl computes the length itself.
      if (name.empty() || name.find_first_of("\r\n:") != std::string::npos ||
          value.find_first_of("\r\n") != std::string::npos ||
          equalsIgnoringCase(name, "Content-Length")) {
        continue;
      }
      const std::string line = value.empty() ? name + ";" : name + ": " + value;
      raw->headerList = curl_slist_append(raw->headerList, line.c_str());
    }
    // The body goes out exactly as given: no invented content type, no 100-continue round trip.
    if (!hasHeader(request.headers, "Content-Type")) {
      raw->headerList = curl_slist_append(raw->headerList, "Content-Type:");
    }
    if (!hasHeader(request.headers, "Expect")) {
      raw->headerList = curl_slist_append(raw->headerList, "Expect:");
    }
    curl_easy_setopt(easy, CURLOPT_HTTPHEADER, raw->headerList);

    if (curl_multi_add_handle(multi_, easy) != CURLM_OK) {
      deliver(std::move(transfer->completion), BridgeError::system("Could not start the request"));
      return;
    }
    active_.emplace(easy, std::move(transfer));
  }

  void finish(std::unique_ptr<Transfer> transfer, CURLcode code) {
    if (code != CURLE_OK) {
      std::string text = transfer->tooLarge ? std::string(kBodyTooLarge) : transfer->errorBuffer;
      if (text.empty()) text = curl_easy_strerror(code);
      deliver(std::move(transfer->completion), BridgeError::system(text, static_cast<int>(code)));
      return;
    }
    long status = 0;
    curl_easy_getinfo(transfer->easy, CURLINFO_RESPONSE_CODE, &status);
    char* location = nullptr;
    curl_easy_getinfo(transfer->easy, CURLINFO_REDIRECT_URL, &location);
    if (isRedirect(status) && location && *location) {
      if (transfer->redirects >= kMaxRedirects) {
        deliver(std::move(transfer->completion),
                BridgeError::system(
                    "Maximum (" + std::to_string(kMaxRedirects) + ") redirects followed",
                    static_cast<int>(CURLE_TOO_MANY_REDIRECTS)));
        return;
      }
      followRedirect(*transfer, status, location);
      start(std::move(transfer));
      return;
    }
    transfer->response.status = status;
    transfer->response.reason = reasonPhrase(status);
    deliver(std::move(transfer->completion), std::move(transfer->response));
  }

  // Rewrites the request the way a browser's fetch follows a redirect.
  static void followRedirect(Transfer& transfer, long status, const std::string& location) {
    HttpRequest& request = transfer.request;
    ++transfer.redirects;
    const bool toGet = (status == 303 && request.method != "HEAD") ||
                       ((status == 301 || status == 302) && request.method == "POST");
    if (toGet) {
      request.method = "GET";
      request.body.reset();
      std::erase_if(request.headers, [](const auto& header) {
        for (const char* name : {"Content-Type", "Content-Length", "Content-Encoding",
                                 "Content-Language", "Content-Location"}) {
          if (equalsIgnoringCase(header.first, name)) return true;
        }
        return false;
      });
    }
    if (originOf(location) != originOf(request.url)) {
      std::erase_if(request.headers, [](const auto& header) {
        return equalsIgnoringCase(header.first, "Authorization");
      });
    }
    request.url = location;
  }

  void deliver(HttpCompletion completion, Result<HttpResponse> result) {
    if (!completion) return;
    queue_->post(
        [gate = gate_, completion = std::move(completion), result = std::move(result)]() mutable {
          gate->run([&] { completion(std::move(result)); });
        });
  }

  static inline const std::string kEmpty;

  std::shared_ptr<base::SerialQueue> queue_;
  std::shared_ptr<DeliveryGate> gate_;
  CURLM* multi_ = nullptr;
  std::thread worker_;
  std::mutex mutex_;
  bool stopping_ = false;                                        // guarded by mutex_
  std::vector<std::unique_ptr<Transfer>> pending_;               // guarded by mutex_
  std::unordered_map<CURL*, std::unique_ptr<Transfer>> active_;  // transfer thread only
};

HttpSession::HttpSession(base::Executors& executors) : impl_(std::make_unique<Impl>(executors)) {}

HttpSession::~HttpSession() = default;

void HttpSession::send(HttpRequest request, HttpCompletion completion) {
  impl_->send(std::move(request), std::move(completion));
}

void HttpSession::stop() {
  impl_->stop();
}

}  // namespace qev::net
