#!/usr/bin/python3
"""Writes the JOSE test vectors of the production build with an independent implementation
(Debian's python3-jwcrypto; needed only to regenerate, not by the build or CI).

Every key written here is a TEST KEY, generated for these vectors only and worthless for anything
else. Layout (relative to this folder):
  store/    a key store: enc-*.pem private keys, enc-*.jwk "oct" keys, sig-*.pem public keys
  signers/  the private halves of sig-*, for writing signed containers in tests
  other/    unrelated keys of the same kinds, for the wrong-key cases
  vectors.json  [{"name", "compact", "payload"}]: encrypted containers and signed ones (whose
                payload is an encrypted container)
Run: /usr/bin/python3 tests/jose_vectors/make_vectors.py (Debian's interpreter)  (rewrites everything)
"""
import json
import os

from jwcrypto import jwe, jwk, jws
from jwcrypto.common import base64url_encode, json_encode

HERE = os.path.dirname(os.path.abspath(__file__))
PAYLOAD = json.dumps({"EncryptedFiles": [{"File": "/domain-app.pkg", "CryptoParameters": [
    {"Name": "Key", "Value": "00112233445566778899aabbccddeeff00112233445566778899aabbccddeeff"},
    {"Name": "IV", "Value": "000102030405060708090a0b"},
    {"Name": "Algorithm", "Value": "AES-256-GCM"}]}]}, separators=(",", ":"))


def write(folder, name, data):
    os.makedirs(os.path.join(HERE, folder), exist_ok=True)
    with open(os.path.join(HERE, folder, name), "wb") as f:
        f.write(data if isinstance(data, bytes) else data.encode())


def main():
    keys = {
        "enc-rsa": jwk.JWK.generate(kty="RSA", size=2048),
        "enc-ec": jwk.JWK.generate(kty="EC", crv="P-256"),
        "enc-oct256": jwk.JWK.generate(kty="oct", size=256),
        "enc-oct128": jwk.JWK.generate(kty="oct", size=128),
    }
    signers = {
        "sig-ec": jwk.JWK.generate(kty="EC", crv="P-256"),
        "sig-rsa": jwk.JWK.generate(kty="RSA", size=2048),
    }
    for kid, key in keys.items():
        if key["kty"] == "oct":
            write("store", kid + ".jwk", key.export(private_key=True))
        else:
            write("store", kid + ".pem", key.export_to_pem(private_key=True, password=None))
            other = jwk.JWK.generate(kty=key["kty"], **(
                {"size": 2048} if key["kty"] == "RSA" else {"crv": "P-256"}))
            write("other", kid + ".pem", other.export_to_pem(private_key=True, password=None))
    for kid, key in signers.items():
        write("store", kid + ".pem", key.export_to_pem())
        write("signers", kid + ".pem", key.export_to_pem(private_key=True, password=None))

    def encrypt(alg, enc, kid, extra=None):
        header = {"alg": alg, "enc": enc, "kid": kid}
        header.update(extra or {})
        token = jwe.JWE(PAYLOAD.encode(), protected=json_encode(header))
        key = keys[kid]
        token.add_recipient(key if key["kty"] == "oct" else jwk.JWK(**key.export_public(as_dict=True)))
        return token.serialize(compact=True)

    vectors = [
        {"name": "RSA-OAEP-256/A256GCM", "compact": encrypt("RSA-OAEP-256", "A256GCM", "enc-rsa")},
        {"name": "RSA-OAEP-256/A128GCM", "compact": encrypt("RSA-OAEP-256", "A128GCM", "enc-rsa")},
        {"name": "ECDH-ES+A256KW/A256GCM", "compact": encrypt(
            "ECDH-ES+A256KW", "A256GCM", "enc-ec",
            {"apu": base64url_encode(b"orvane-medium"), "apv": base64url_encode(b"orvane")})},
        {"name": "ECDH-ES+A256KW/A128GCM", "compact": encrypt("ECDH-ES+A256KW", "A128GCM", "enc-ec")},
        {"name": "dir/A256GCM", "compact": encrypt("dir", "A256GCM", "enc-oct256")},
        {"name": "dir/A128GCM", "compact": encrypt("dir", "A128GCM", "enc-oct128")},
    ]
    inner = vectors[0]["compact"]
    for alg, kid in (("ES256", "sig-ec"), ("RS256", "sig-rsa")):
        token = jws.JWS(inner.encode())
        token.add_signature(signers[kid], None, json_encode({"alg": alg, "kid": kid}))
        vectors.append({"name": alg + " over RSA-OAEP-256/A256GCM",
                        "compact": token.serialize(compact=True)})
    for vector in vectors:
        vector["payload"] = PAYLOAD
    write(".", "vectors.json", json.dumps(vectors, indent=1) + "\n")


if __name__ == "__main__":
    main()
