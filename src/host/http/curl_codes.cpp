#include "host/http/curl_codes.h"

#include "host/http/http_outcome.h"

namespace veld_report::host {

zel::ResultCode CodeOf(CURLcode result) {
  switch (result) {
    case CURLE_OK:
      return zel::sOk;
    case CURLE_OUT_OF_MEMORY:
      return zel::eOutOfMemory;
    case CURLE_OPERATION_TIMEDOUT:
      return zel::eOperationTimeout;
    case CURLE_URL_MALFORMAT:
      return zel::eInvalidArgument;
    case CURLE_COULDNT_RESOLVE_HOST:
    case CURLE_COULDNT_RESOLVE_PROXY:
      return zel::eNotFound;
    case CURLE_PEER_FAILED_VERIFICATION:
    case CURLE_SSL_PINNEDPUBKEYNOTMATCH:
    case CURLE_SSL_ISSUER_ERROR:
    case CURLE_SSL_CACERT_BADFILE:
      return eInvalidSignature;
    case CURLE_UNSUPPORTED_PROTOCOL:  // an answer of HTTP/0.9; urls of other schemes don't get this far
    case CURLE_WEIRD_SERVER_REPLY:
    case CURLE_WRITE_ERROR:
    case CURLE_BAD_CONTENT_ENCODING:
      return zel::eInvalidResult;
    case CURLE_COULDNT_CONNECT:
    case CURLE_GOT_NOTHING:
    case CURLE_PARTIAL_FILE:
    case CURLE_SEND_ERROR:
    case CURLE_RECV_ERROR:
    case CURLE_SSL_CONNECT_ERROR:
    case CURLE_PROXY:
      return eMediaError;
    default:
      return zel::eUnspecifiedError;
  }
}

namespace {

const char* WordsOf(CURLcode result) {
  switch (result) {
    case CURLE_COULDNT_CONNECT:
      return "the server can't be reached";
    case CURLE_COULDNT_RESOLVE_HOST:
      return "the server's name isn't known";
    case CURLE_COULDNT_RESOLVE_PROXY:
      return "the proxy's name isn't known";
    case CURLE_PROXY:
      return "the proxy doesn't let it through";
    case CURLE_OPERATION_TIMEDOUT:
      return "the server took too long";
    case CURLE_PEER_FAILED_VERIFICATION:
    case CURLE_SSL_ISSUER_ERROR:
      return "the server's certificate isn't trusted";
    case CURLE_SSL_PINNEDPUBKEYNOTMATCH:
      return "the server has another key than the pin";
    case CURLE_SSL_CACERT_BADFILE:
      return "the trusted certificates can't be read";
    case CURLE_SSL_CONNECT_ERROR:
      return "no TLS connection came about";
    case CURLE_GOT_NOTHING:
    case CURLE_PARTIAL_FILE:
    case CURLE_SEND_ERROR:
    case CURLE_RECV_ERROR:
      return "the connection broke off";
    case CURLE_UNSUPPORTED_PROTOCOL:
    case CURLE_WEIRD_SERVER_REPLY:
    case CURLE_BAD_CONTENT_ENCODING:
      return "the answer isn't one of HTTP";
    default:
      return "the request failed";
  }
}

const char* RemedyOf(CURLcode result) {
  switch (result) {
    case CURLE_PEER_FAILED_VERIFICATION:
    case CURLE_SSL_ISSUER_ERROR:
      return "; check the endpoint's certificates, caFile and the server's chain";
    case CURLE_SSL_PINNEDPUBKEYNOTMATCH:
      return "; if the server's key was changed, give the new pin; otherwise somebody is in between";
    case CURLE_SSL_CACERT_BADFILE:
      return "; caFile must name a file with certificates in PEM form";
    case CURLE_SSL_CONNECT_ERROR:
      return "; check that the server speaks TLS on this port";
    default:
      return "";
  }
}

}  // namespace

std::string SentenceOf(CURLcode result, const std::string& own) {
  return std::string(WordsOf(result)) + " (" + (own.empty() ? curl_easy_strerror(result) : own) + ")" +
         RemedyOf(result);
}

}  // namespace veld_report::host
