"""What goes into a reporter and comes out of it."""
from __future__ import annotations

import datetime
import enum
import os
from dataclasses import dataclass, field
from typing import Mapping, Optional, Sequence, Union

Path = Union[str, "os.PathLike[str]"]


class Code(enum.IntEnum):
    """The codes of the failures that a program may want to distinguish. There are others."""

    OUT_OF_MEMORY = 0x80000041
    INVALID_ARGUMENT = 0x80000046
    NOT_FOUND = 0x8000004C
    OUT_OF_SPACE = 0x80000062
    INVALID_STATE = 0x8000006A  # the reporter was opened before this process was forked
    NOT_INITIALIZED = 0x8000006B  # the reporter is closed
    INVALID_RESULT = 0x80000071  # a server has answered with another status than 200


class ReporterError(Exception):
    """A failure: its code, often one of Code, and a sentence that says what, where and what to do."""

    def __init__(self, code: int, sentence: str, code_text: str) -> None:
        super().__init__(code, sentence, code_text)
        self.code = code
        self.sentence = sentence
        self.code_text = code_text  # "0x80000062 Out of space"

    def __str__(self) -> str:
        return f"{self.sentence} ({self.code_text})"


@dataclass(frozen=True)
class Endpoint:
    """One report server."""

    url: str  # https://, or http:// to this machine or with allow_http. Another url is another queue.
    consumer: str = ""  # gets the records for this consumer, and those for all
    # CA certificates as PEM texts, or pins of the server's key as "sha256//BASE64". With any given, only they count.
    certificates: Sequence[str] = ()
    # How requests are compressed: "none", "gzip" or "zstd". A server that answers 415 gets plain ones from then on.
    compress: str = "none"


AnyEndpoint = Union[Endpoint, Mapping[str, object], str]  # a mapping has the names of Endpoint; a text is a url


@dataclass(frozen=True)
class Settings:
    """What can be changed at run time. Times are in seconds."""

    endpoints: Sequence[AnyEndpoint] = ()
    packet_limit: int = 100  # maximum records in a request; 0: no limit
    queue_limit_kb: int = 10240  # of each endpoint's queue; a full one drops its oldest records
    retry_after: int = 30  # delay after a cycle that left records undelivered, at least 1
    packet_limit_kb: int = 256  # maximum size of a request's records; a larger record is sent alone. 0: no limit
    send_every: int = 0  # minimum time between requests to a url; flush and close don't wait for it
    allow_http: bool = False  # http:// urls to other machines too, which anyone on the way can read
    # Ed25519 private key, PEM, from the next request on. None: the present key stays; "": unsigned.
    signing_key_file: Optional[Path] = None
    common: Mapping[str, str] = field(default_factory=dict, hash=False)  # members that are added to every record


@dataclass(frozen=True)
class FinishedRequest:
    url: str
    # 0: answered with 200, and its records are gone from the queue. Code.INVALID_RESULT: another status. Any other
    # code: no answer. In the last two cases the records stay in their queue.
    result: int
    status: int  # of the answer; 0: there was none
    endpoint: str  # the url without user and password
    text: str  # how it failed, a sentence; "" for an answer of 200
    records: int  # in the request
    bytes: int  # of these records as JSON


@dataclass(frozen=True)
class Count:
    items: int
    bytes: int


@dataclass(frozen=True)
class Loss:
    """A loss of records."""

    url: str  # of the endpoint, without user and password; "" if it isn't known
    reason: str  # "evicted", "expired", "rejected", "removed" or "damaged"
    why: str  # a sentence
    count: Count  # since the last call with this url and reason. 0 items: it isn't known how many


@dataclass(frozen=True)
class Ledger:
    """What became of records. At any time accepted = delivered + evicted + rejected + removed + waiting."""

    accepted: Count
    delivered: Count
    evicted: Count  # dropped to make room, or for their age
    rejected: Count  # couldn't be stored
    removed: Count  # removed with their queue, or damaged
    waiting: Count
    returned: Count  # given back after a failed request; they are waiting
    expired: Count  # of evicted: dropped for their age
    damaged: Count  # of removed: in a damaged file


@dataclass(frozen=True)
class EndpointStatistics:
    url: str  # without user and password
    consumer: str
    queue: Ledger  # over the store's life
    waits_until: Optional[datetime.datetime]  # requests are held back until then, in UTC; None: they aren't
    last_status: int  # 0: no answer yet
    last_error: str  # "" after a good answer


@dataclass(frozen=True)
class Statistics:
    submitted: int  # records that send has accepted, in this process
    refused: int
    in_memory: int  # upper bound: of submitted, those not in the store yet
    total: Ledger  # of the store over its life, including former endpoints; a record for two endpoints counts twice
    endpoints: Sequence[EndpointStatistics]
