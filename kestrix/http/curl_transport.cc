// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

#include "kestrix/http/curl_transport.h"

#include <curl/curl.h>
#include <limits.h>
#include <malloc.h>
#include <openssl/ssl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>

#include <algorithm>
#include <string_view>
#include <utility>
#include <vector>

#include "base/logging.h"
#include "base/memory.h"
#include "kestrix/http/http_constants.h"
#include "kestrix/http/request_check.h"

namespace kestrix::http {
namespace {

constexpr base::Location kTransfer{"StartAsyncTransfer",
                                   "kestrix/http/curl_transport", 0};

// A bus drops a program that sends a message of more than 32 MiB; half of that
// leaves room for what escaping adds.
constexpr size_t kMaxBodySize = 16u << 20;
constexpr size_t kMaxHeaderSize = 64u << 10;

// So many at a time are a burst, whose connections and memory are given back
// when it has been quiet for a while. After fewer the connections are kept for
// the next requests.
constexpr size_t kManyTransfers = 32;
constexpr base::TimeDelta kQuietTime = std::chrono::seconds(1);

// As long as requests keep coming, connections are kept for so many at a time.
// The library would by itself keep four for each that is under way at the
// moment, and close nearly all at the end of every volley.
constexpr long kMaxKeptConnections = 256;

// What goes out first over TLS is copied into a buffer, for each request: the
// header, and the body if it is short. The library (seen in 7.88.1) waits for
// ever to send on if that takes more than two buffers; and to erase more than
// the least that it allows is a waste after a few hundred bytes.
constexpr size_t kMinUploadBufferSize = 16u << 10;
constexpr size_t kMaxShortBody = 64u << 10;
// What the library adds to header and body.
constexpr size_t kFraming = 1u << 10;

// The library for HTTP/2 refuses more than 64 KiB of fields, and has some for
// what the first line says over HTTP/1.1.
constexpr size_t kMaxHttp2HeaderSize = 60u << 10;

constexpr base::TimeDelta kRetryDelay = std::chrono::milliseconds(100);

const char* ErrorCode(CURLcode result) {
  switch (result) {
    case CURLE_COULDNT_RESOLVE_HOST:
      return "resolve";
    case CURLE_COULDNT_CONNECT:
      return "connect";
    case CURLE_OPERATION_TIMEDOUT:
      return "timeout";
    case CURLE_SSL_CONNECT_ERROR:
    case CURLE_SSL_CERTPROBLEM:
    case CURLE_SSL_CIPHER:
    case CURLE_PEER_FAILED_VERIFICATION:
    case CURLE_SSL_CACERT_BADFILE:
    case CURLE_SSL_ISSUER_ERROR:
      return "tls";
    case CURLE_FILESIZE_EXCEEDED:
      return "too_large";
    case CURLE_WEIRD_SERVER_REPLY:
    case CURLE_UNSUPPORTED_PROTOCOL:
    case CURLE_PARTIAL_FILE:
    case CURLE_HTTP2:
    case CURLE_HTTP2_STREAM:
    case CURLE_GOT_NOTHING:
    case CURLE_SEND_ERROR:
    case CURLE_RECV_ERROR:
    case CURLE_BAD_CONTENT_ENCODING:
    // Said of a folded header line that follows no other.
    case CURLE_BAD_FUNCTION_ARGUMENT:
      return "protocol";
    default:
      return "internal";
  }
}

void* EraseAndReallocate(void* memory, size_t size) {
  void* larger = malloc(size);
  if (!larger) return nullptr;
  if (memory)
    memcpy(larger, memory, std::min(malloc_usable_size(memory), size));
  base::EraseAndFree(memory);
  return larger;
}

CURLcode SetUpTls(CURL*, void* context, void*) {
  // What has been received would else stay in memory until something else is.
  SSL_CTX_set_options(static_cast<SSL_CTX*>(context), SSL_OP_CLEANSE_PLAINTEXT);
  return CURLE_OK;
}

// Whether the library trusts the certificates in one file by default. It then
// reads them once, not for each connection, if it need not look into a folder
// too.
bool HasDefaultCaFile() {
  return curl_version_info(CURLVERSION_NOW)->cainfo != nullptr;
}

}  // namespace

// The library's global state.
class CurlTransport::Library {
 public:
  Library() {
    // The TLS library takes the first as orders to load code and to write down
    // the keys of every connection, the resolver takes the others as orders to
    // look up another name than the one that was checked.
    for (const char* name :
         {"SSLKEYLOGFILE", "OPENSSL_CONF", "OPENSSL_CONF_INCLUDE",
          "OPENSSL_ENGINES", "OPENSSL_MODULES",  //
          "HOSTALIASES", "LOCALDOMAIN", "RES_OPTIONS", "RESOLV_HOST_CONF",
          "RESOLV_ADD_TRIM_DOMAINS", "RESOLV_OVERRIDE_TRIM_DOMAINS",
          "RESOLV_MULTI", "RESOLV_REORDER"}) {
      unsetenv(name);
    }
    // Its requests and replies hold tokens.
    const CURLcode result =
        curl_global_init_mem(CURL_GLOBAL_DEFAULT, malloc, base::EraseAndFree,
                             EraseAndReallocate, strdup, calloc);
    CHECK(result == CURLE_OK)
        << "Cannot set up HTTP: " << curl_easy_strerror(result);
  }
  ~Library() { curl_global_cleanup(); }
};

namespace {

// Raises the limit of open files to what is allowed, and returns how many of
// them connections may take. The rest is for the bus and for files: a token
// must still get onto the disk while requests are many.
long ClaimDescriptors() {
  constexpr rlim_t kReserved = 64;
  // A look-up takes three for a while, and a connection to a name with two
  // addresses tries both.
  constexpr rlim_t kPerConnection = 4;
  constexpr rlim_t kEnough = 65536;
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return 0;
  limit.rlim_cur = std::min(limit.rlim_max, std::max(limit.rlim_cur, kEnough));
  setrlimit(RLIMIT_NOFILE, &limit);
  getrlimit(RLIMIT_NOFILE, &limit);
  const rlim_t usable = std::min(limit.rlim_cur, kEnough);
  const rlim_t ours = usable > kReserved ? usable - kReserved : 0;
  return static_cast<long>(std::max<rlim_t>(ours / kPerConnection, 1));
}

}  // namespace

struct CurlTransport::MultiHandle {
  MultiHandle() : get(curl_multi_init()) {
    CHECK(get != nullptr) << "Cannot set up HTTP";
  }
  ~MultiHandle() { curl_multi_cleanup(get); }
  CURLM* get;
};

// One request and the response as far as it has come. Each has a handle of its
// own: a used one would save a tenth of the work of a small request, but the
// library (seen in 7.88.1) crashes when the response to it begins with a folded
// header line.
class CurlTransport::Transfer {
 public:
  Transfer(CURLM* multi, RequestId id, Request request,
           SuccessCallback success_callback, ErrorCallback error_callback)
      : multi_(multi),
        id_(id),
        request_(std::move(request)),
        success_callback_(std::move(success_callback)),
        error_callback_(std::move(error_callback)) {}

  ~Transfer() {
    if (easy_) {
      curl_multi_remove_handle(multi_, easy_);
      curl_easy_cleanup(easy_);
    }
    curl_slist_free_all(header_lines_);
  }
  Transfer(const Transfer&) = delete;
  Transfer& operator=(const Transfer&) = delete;

  // Hands the request to the library. False, with the reason kept for
  // ReportRefused(), if it must not be sent.
  bool Start(base::TimeDelta timeout) {
    if (!CheckHeaderSize(request_, &refusal_) ||
        !CheckUrl(request_.url, &refusal_) ||
        !CheckHeaders(request_.headers, &refusal_)) {
      return false;
    }
    easy_ = curl_easy_init();
    if (!easy_ || !AddHeaderLines() || !SetOptions(timeout) ||
        curl_multi_add_handle(multi_, easy_) != CURLM_OK) {
      Refuse("The request could not be started");
      return false;
    }
    return true;
  }

  RequestId id() const { return id_; }

  // Keeps the reason for ReportRefused().
  void Refuse(const char* reason) {
    Error::AddTo(&refusal_, kTransfer, kErrorDomain, "internal", reason);
  }
  void ReportRefused() { error_callback_.Run(id_, refusal_.get()); }

  void ReportDone(CURLcode result) {
    long status = 0;
    curl_easy_getinfo(easy_, CURLINFO_RESPONSE_CODE, &status);
    // The library takes a header that just stops for a whole one, and one that
    // follows an interim response whatever its first line is.
    if (result == CURLE_OK && !header_ended_) result = CURLE_PARTIAL_FILE;
    if (result == CURLE_OK && (status < 200 || status > 999)) {
      result = CURLE_WEIRD_SERVER_REPLY;
    }
    // What it says of a header line beyond a limit of its own.
    if (result == CURLE_OUT_OF_MEMORY) too_large_ = true;
    if (result == CURLE_OK) {
      success_callback_.Run(id_,
                            std::make_unique<Response>(static_cast<int>(status),
                                                       std::move(body_)));
      return;
    }
    const char* code = too_large_ ? "too_large" : ErrorCode(result);
    const char* text =
        error_text_[0] ? error_text_ : curl_easy_strerror(result);
    if (result == CURLE_ABORTED_BY_CALLBACK) {
      code = "protocol";
      text = "The connection broke before there was an answer";
    }
    if (too_large_ || result == CURLE_FILESIZE_EXCEEDED) {
      text = "The response is larger than this device accepts";
    }
    const std::unique_ptr<Error> error =
        Error::Create(kTransfer, kErrorDomain, code, text);
    error_callback_.Run(id_, error.get());
  }

 private:
  template <typename T>
  bool Set(CURLoption option, T value) {
    return curl_easy_setopt(easy_, option, value) == CURLE_OK;
  }

  bool AddHeaderLine(const std::string& line) {
    curl_slist* lines = curl_slist_append(header_lines_, line.c_str());
    if (!lines) return false;
    header_lines_ = lines;
    return true;
  }

  bool AddHeaderLines() {
    for (const auto& [name, value] : request_.headers) {
      // The library's notation for a field with an empty value is a semicolon.
      if (!AddHeaderLine(value.empty() ? name + ";" : name + ": " + value)) {
        return false;
      }
    }
    // Lines with nothing after the colon keep the library from adding its own.
    return AddHeaderLine("Accept:") && AddHeaderLine("Expect:");
  }

  bool SetOptions(base::TimeDelta timeout) {
    const auto timeout_ms = static_cast<long>(
        std::chrono::duration_cast<std::chrono::milliseconds>(timeout).count());
    // The library for HTTP/2 does not erase what it frees.
    const bool can_use_http_2 = request_.keeps_connection &&
                                CanUseHttp2(request_.headers) &&
                                GetHeaderSize(request_) <= kMaxHttp2HeaderSize;
    const long http_version =
        can_use_http_2 ? CURL_HTTP_VERSION_2TLS : CURL_HTTP_VERSION_1_1;
    return Set(CURLOPT_PRIVATE, this) &&
           // Where the request goes, and nowhere else.
           Set(CURLOPT_URL, request_.url.c_str()) &&
           // The library would tidy the path up and encode what is not ASCII.
           Set(CURLOPT_REQUEST_TARGET,
               GetRequestTarget(request_.url).c_str()) &&
           Set(CURLOPT_PROTOCOLS_STR, "http,https") &&
           Set(CURLOPT_FOLLOWLOCATION, 0L) && Set(CURLOPT_PROXY, "") &&
           Set(CURLOPT_NETRC, static_cast<long>(CURL_NETRC_IGNORED)) &&
           Set(CURLOPT_SSLVERSION,
               static_cast<long>(CURL_SSLVERSION_TLSv1_2)) &&
           Set(CURLOPT_SSL_CTX_FUNCTION, SetUpTls) &&
           Set(CURLOPT_SSL_VERIFYPEER, 1L) && Set(CURLOPT_SSL_VERIFYHOST, 2L) &&
           (!HasDefaultCaFile() ||
            Set(CURLOPT_CAPATH, static_cast<char*>(nullptr))) &&
           // What is sent.
           Set(CURLOPT_FORBID_REUSE, request_.keeps_connection ? 0L : 1L) &&
           Set(CURLOPT_HTTP_VERSION, http_version) &&
           Set(CURLOPT_HTTPHEADER, header_lines_) && SetMethod() &&
           Set(CURLOPT_UPLOAD_BUFFERSIZE, GetUploadBufferSize()) &&
           // What comes back.
           Set(CURLOPT_WRITEFUNCTION, &Transfer::OnBody) &&
           Set(CURLOPT_WRITEDATA, this) &&
           Set(CURLOPT_HEADERFUNCTION, &Transfer::OnHeader) &&
           Set(CURLOPT_HEADERDATA, this) &&
           Set(CURLOPT_MAXFILESIZE_LARGE,
               static_cast<curl_off_t>(kMaxBodySize)) &&
           Set(CURLOPT_ERRORBUFFER, error_text_) &&
           // Not again once the server may have acted on it.
           Set(CURLOPT_PREREQFUNCTION, &Transfer::OnSend) &&
           Set(CURLOPT_PREREQDATA, this) &&
           // How long it may take. Without the quick exit a name server that
           // does not answer would stall the loop when a request is given up.
           Set(CURLOPT_TIMEOUT_MS, timeout_ms) && Set(CURLOPT_NOSIGNAL, 1L) &&
           Set(CURLOPT_QUICK_EXIT, 1L);
  }

  long GetUploadBufferSize() const {
    const size_t size = GetHeaderSize(request_) +
                        std::min(request_.body.size(), kMaxShortBody) +
                        kFraming;
    return static_cast<long>(std::max(size, kMinUploadBufferSize));
  }

  bool SetMethod() {
    if (request_.method != request_type::kPost) return Set(CURLOPT_HTTPGET, 1L);
    // The library borrows the body, which lives as long as the transfer.
    return Set(CURLOPT_POST, 1L) &&
           Set(CURLOPT_POSTFIELDSIZE_LARGE,
               static_cast<curl_off_t>(request_.body.size())) &&
           Set(CURLOPT_POSTFIELDS, request_.body.data());
  }

  // Called before the request is sent. The library sends it again if a kept
  // connection breaks before the answer begins, when the server may have acted
  // on it. (On a new connection only a server that says it has done nothing
  // makes it do so.)
  static int OnSend(void* transfer, char*, char*, int, int) {
    auto* self = static_cast<Transfer*>(transfer);
    if (self->was_sent_on_kept_connection_) return CURL_PREREQFUNC_ABORT;
    long new_connections = 0;
    curl_easy_getinfo(self->easy_, CURLINFO_NUM_CONNECTS, &new_connections);
    self->was_sent_on_kept_connection_ = new_connections == 0;
    return CURL_PREREQFUNC_OK;
  }

  // Returning another number than was given ends the transfer.
  static size_t OnBody(char* data, size_t, size_t size, void* transfer) {
    auto* self = static_cast<Transfer*>(transfer);
    if (size > kMaxBodySize - self->body_.size()) {
      self->too_large_ = true;
      return 0;
    }
    self->body_.append(data, size);
    return size;
  }

  static size_t OnHeader(char* data, size_t, size_t size, void* transfer) {
    auto* self = static_cast<Transfer*>(transfer);
    if (size > kMaxHeaderSize - self->header_size_) {
      self->too_large_ = true;
      return 0;
    }
    self->header_size_ += size;
    const std::string_view line(data, size);
    // A final response follows an interim one.
    if (line.starts_with("HTTP/")) self->header_ended_ = false;
    if (line == "\r\n" || line == "\n") self->header_ended_ = true;
    return size;
  }

  CURLM* multi_;  // Not owned; outlives this.
  RequestId id_;
  Request request_;
  SuccessCallback success_callback_;
  ErrorCallback error_callback_;
  CURL* easy_ = nullptr;
  curl_slist* header_lines_ = nullptr;
  std::unique_ptr<Error> refusal_;
  std::string body_;
  size_t header_size_ = 0;
  bool header_ended_ = false;
  bool too_large_ = false;
  bool was_sent_on_kept_connection_ = false;
  char error_text_[CURL_ERROR_SIZE] = {};
};

CurlTransport::CurlTransport(base::EventLoop* loop)
    : loop_(loop),
      library_(std::make_unique<Library>()),
      max_connections_(ClaimDescriptors()),
      timer_(loop,
             base::Bind(&CurlTransport::OnTimeout, base::Unretained(this))),
      quiet_timer_(
          loop, base::Bind(&CurlTransport::EndBurst, base::Unretained(this))) {
  SetUpMultiHandle();
}

CurlTransport::~CurlTransport() {
  transfers_.clear();
  // Closing the kept connections still asks for sockets to be forgotten.
  multi_.reset();
}

void CurlTransport::SetUpMultiHandle() {
  multi_.reset();
  multi_ = std::make_unique<MultiHandle>();
  curl_multi_setopt(multi_->get, CURLMOPT_SOCKETFUNCTION, &OnSocketInterest);
  curl_multi_setopt(multi_->get, CURLMOPT_SOCKETDATA, this);
  curl_multi_setopt(multi_->get, CURLMOPT_TIMERFUNCTION, &OnTimerInterest);
  curl_multi_setopt(multi_->get, CURLMOPT_TIMERDATA, this);
  // Requests beyond that wait for a connection within their own time.
  curl_multi_setopt(multi_->get, CURLMOPT_MAX_TOTAL_CONNECTIONS,
                    max_connections_);
  curl_multi_setopt(multi_->get, CURLMOPT_MAXCONNECTS, kMaxKeptConnections);
  // No two transfers share a connection. If a host speaks HTTP/2 on one and
  // HTTP/1.1 on another, the library (seen in 7.88.1) would send requests over
  // the latter too while it is in use, and swap their responses.
  curl_multi_setopt(multi_->get, CURLMOPT_PIPELINING, CURLPIPE_NOTHING);
}

RequestId CurlTransport::StartAsyncTransfer(Request request,
                                            SuccessCallback success_callback,
                                            ErrorCallback error_callback) {
  // Positive, however many there have been.
  const RequestId id = last_id_ = last_id_ % INT_MAX + 1;
  auto transfer = std::make_unique<Transfer>(
      multi_->get, id, std::move(request), std::move(success_callback),
      std::move(error_callback));
  const bool started = transfer->Start(default_timeout_);
  transfers_[id] = std::move(transfer);
  if (started) {
    most_transfers_ = std::max(most_transfers_, transfers_.size());
  } else {
    PostReportRefused(id);
  }
  return id;
}

void CurlTransport::SetDefaultTimeout(base::TimeDelta timeout) {
  default_timeout_ = timeout;
}

void CurlTransport::PostReportRefused(RequestId id) {
  loop_->PostTask(base::Bind(&CurlTransport::ReportRefused,
                             weak_ptr_factory_.GetWeakPtr(), id));
}

void CurlTransport::ReportRefused(RequestId id) {
  const std::shared_ptr<CurlTransport> keep_alive = shared_from_this();
  // It may have ended meanwhile.
  if (auto node = transfers_.extract(id)) node.mapped()->ReportRefused();
  if (transfers_.empty()) OnAllDone();
}

int CurlTransport::OnSocketInterest(void* easy, int fd, int what, void* self,
                                    void*) {
  auto* transport = static_cast<CurlTransport*>(self);
  transport->sockets_.erase(fd);
  if (what == CURL_POLL_REMOVE) return 0;
  uint32_t events = 0;
  if (what & CURL_POLL_IN) events |= base::EventLoop::kReadable;
  if (what & CURL_POLL_OUT) events |= base::EventLoop::kWritable;
  std::unique_ptr<base::EventSource> source = transport->loop_->WatchFd(
      fd, events,
      base::Bind(&CurlTransport::OnSocketReady,
                 transport->weak_ptr_factory_.GetWeakPtr(), fd));
  if (source) {
    transport->sockets_[fd] = std::move(source);
    return 0;
  }
  // Not told to the library, which would give up every transfer for good and
  // report none of them.
  Transfer* transfer = nullptr;
  curl_easy_getinfo(easy, CURLINFO_PRIVATE, &transfer);
  if (transfer) {
    transfer->Refuse("The connection could not be watched");
    transport->PostReportRefused(transfer->id());
  }
  return 0;
}

int CurlTransport::OnTimerInterest(void*, long timeout_ms, void* self) {
  auto* transport = static_cast<CurlTransport*>(self);
  if (timeout_ms > 0) {
    transport->timer_.Start(std::chrono::milliseconds(timeout_ms));
    return 0;
  }
  transport->timer_.Stop();
  // At once, but not from here. A timer could come a millisecond late, which is
  // more than all the rest of a request takes.
  if (timeout_ms == 0) {
    transport->loop_->PostTask(base::Bind(
        &CurlTransport::OnTimeout, transport->weak_ptr_factory_.GetWeakPtr()));
  }
  return 0;
}

void CurlTransport::OnSocketReady(int fd, uint32_t events) {
  int event_mask = 0;
  if (events & base::EventLoop::kReadable) event_mask |= CURL_CSELECT_IN;
  if (events & base::EventLoop::kWritable) event_mask |= CURL_CSELECT_OUT;
  Advance(fd, event_mask);
}

void CurlTransport::OnTimeout() { Advance(CURL_SOCKET_TIMEOUT, 0); }

void CurlTransport::Advance(int fd, int event_mask) {
  // A callback may let go of the transport, which the transfers still need.
  const std::shared_ptr<CurlTransport> keep_alive = shared_from_this();
  int running = 0;
  if (curl_multi_socket_action(multi_->get, fd, event_mask, &running) !=
          CURLM_OK &&
      !transfers_.empty()) {
    // Memory was short, and it broke off before it said when to come again.
    timer_.Start(kRetryDelay);
  }

  std::vector<std::pair<std::unique_ptr<Transfer>, CURLcode>> done;
  int remaining = 0;
  while (const CURLMsg* message =
             curl_multi_info_read(multi_->get, &remaining)) {
    if (message->msg != CURLMSG_DONE) continue;
    const CURLcode result = message->data.result;
    Transfer* transfer = nullptr;
    curl_easy_getinfo(message->easy_handle, CURLINFO_PRIVATE, &transfer);
    done.emplace_back(std::move(transfers_.extract(transfer->id()).mapped()),
                      result);
  }
  for (auto& [transfer, result] : done) transfer->ReportDone(result);
  done.clear();
  if (transfers_.empty()) OnAllDone();
}

void CurlTransport::OnAllDone() {
  if (most_transfers_ < kManyTransfers || is_burst_ending_) return;
  is_burst_ending_ = true;
  quiet_timer_.Start(kQuietTime);
}

void CurlTransport::EndBurst() {
  is_burst_ending_ = false;
  if (!transfers_.empty()) return;
  most_transfers_ = 0;
  // The library would keep most of the connections, and the allocator what they
  // and the requests took.
  SetUpMultiHandle();
#ifdef __GLIBC__
  malloc_trim(0);
#endif
}

}  // namespace kestrix::http
