# SPDX-License-Identifier: ISC
"""Asks an update server as a router does, and compares every byte with the folder."""
import http.client
from urllib.parse import urljoin, urlsplit

TIMEOUT = 10  # seconds without a byte; a router gives up after as many
REDIRECTS = 10

# What a router sends, with facts that no router has.
QUERY = "?fw=0&version=verify&mac=00:00:00:00:00:00&ip=192.0.2.10&model={model}&sn=verify&customid=&os=VOLKRAN"

# A manifest has to reach the router in one piece. The answer's head travels with it;
# together they should fit into one TCP segment, on a line with PPPoE and a tunnel too.
ONE_SEGMENT = 1360


class Mismatch(Exception):
    """The server does not serve what the folder holds."""


class Answer:
    def __init__(self, url):
        """Asks for `url` and follows redirects; Mismatch unless the answer is a 200."""
        for _ in range(REDIRECTS):
            self.url = url
            self.response = self._get(url)
            location = self.response.getheader("Location")
            if self.response.status not in (301, 302, 303, 307, 308) or not location:
                break
            url = urljoin(url, location)
        if self.response.status != 200:
            raise Mismatch(f"{url}: the server answers {self.response.status}"
                           f" {self.response.reason}; it should answer 200.")

    @staticmethod
    def _get(url):
        parts = urlsplit(url)
        kinds = {"http": http.client.HTTPConnection, "https": http.client.HTTPSConnection}
        if parts.scheme not in kinds or not parts.hostname:
            raise Mismatch(f"{url}: this is no http:// or https:// address.")
        try:
            connection = kinds[parts.scheme](parts.hostname, parts.port, timeout=TIMEOUT)
            target = (parts.path or "/") + ("?" + parts.query if parts.query else "")
            # Exactly a router's header lines: no user agent, no word about encodings.
            connection.putrequest("GET", target, skip_accept_encoding=True)
            connection.putheader("Accept", "*/*")
            connection.endheaders()
            return connection.getresponse()
        except (OSError, ValueError, http.client.HTTPException) as error:
            raise Mismatch(f"{url}: the server could not be asked ({error or type(error).__name__}).") from None

    def head_size(self):
        lines = [f"HTTP/1.1 {self.response.status} {self.response.reason}"]
        lines += [f"{name}: {value}" for name, value in self.response.getheaders()]
        return sum(len(line) + 2 for line in lines) + 2

    def compare(self, path):
        """Reads the body against the file; Mismatch at the first difference."""
        encoding = self.response.getheader("Content-Encoding")
        if encoding:
            raise Mismatch(f"{self.url}: the server sends it as {encoding}, which routers do not"
                           " unpack; switch compression off.")
        length = self.response.getheader("Content-Length")
        size = path.stat().st_size
        if length is None:
            raise Mismatch(f"{self.url}: the server does not announce the size. A download without"
                           " Content-Length is never complete for a router.")
        if length != str(size):
            raise Mismatch(f"{self.url}: the server announces {length} bytes; the file {path} has {size}.")
        position = 0
        with open(path, "rb") as file:
            while wanted := file.read(1 << 20):
                got = self._read(len(wanted))
                if got != wanted:
                    same = next((i for i, (a, b) in enumerate(zip(got, wanted)) if a != b), len(got))
                    raise Mismatch(f"{self.url}: byte {position + same} differs from the file {path}.")
                position += len(wanted)
        return position

    def _read(self, count):
        try:
            return self.response.read(count)
        except (OSError, http.client.HTTPException) as error:
            raise Mismatch(f"{self.url}: the answer breaks off ({error or type(error).__name__}).") from None


def asked_model(model):
    """A board name as it may stand in an address: a router sends it in upper case."""
    return model.upper().replace(" ", "-")


def verify(url, folder, model, say):
    """Raises Mismatch, or says what was compared. `folder` is a Folder."""
    current = folder.current()
    if current is None:
        raise Mismatch(f"the folder '{folder.path}' has no manifest.")
    answer = Answer(url + QUERY.format(model=asked_model(model)))
    size = answer.compare(folder.path / "update.xml")
    say(f"{url}: the manifest, {size} bytes, is as in the folder.")
    if urlsplit(url).scheme == "http" and answer.head_size() + size > ONE_SEGMENT:
        say(f"Warning: the answer's head and the manifest have {answer.head_size() + size} bytes together."
            f" Beyond {ONE_SEGMENT} the manifest may reach a router in two pieces, and then it is of"
            " no use; shorten the notes or the server's header lines.")
    image = folder.path / "releases" / current.build / current.url.rsplit("/", 1)[-1]
    size = Answer(current.url).compare(image)
    say(f"{current.url}: the image, {size} bytes, is as in the folder.")
