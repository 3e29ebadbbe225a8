"""The service behind nginx as the administrators' document has it: a certificate, a user of another machine, files up and down."""

from trial import expect

# A certificate where the document says that one is, which everybody in the machine trusts.
CERTIFICATE = """
folder=/etc/letsencrypt/live/files.example.org
mkdir -p $folder
openssl req -x509 -newkey rsa:2048 -nodes -days 2 -subj /CN=files.example.org -addext subjectAltName=DNS:files.example.org \\
  -keyout $folder/privkey.pem -out $folder/fullchain.pem 2>/dev/null
cp $folder/fullchain.pem /usr/local/share/ca-certificates/files.example.org.crt
update-ca-certificates >/dev/null
nginx -t
systemctl start nginx
"""

# Small, and large enough to be sent in parts.
UP_AND_DOWN = """
kestrune configure --url https://files.example.org --token-file ~/token
mkdir -p ~/Kestrune
kestrune mount ~/Kestrune >~/mount.log 2>&1 &
for i in $(seq 100); do grep -q "^Mounted at" ~/mount.log && break; sleep 0.1; done
echo "a letter" >~/Kestrune/letter.txt
head -c 25000000 /dev/urandom >~/picture
cp ~/picture ~/Kestrune/picture
kestrune sync --wait ~/Kestrune
kestrune evict ~/Kestrune/picture
kestrune state ~/Kestrune/picture
cmp ~/picture ~/Kestrune/picture
kestrune unmount ~/Kestrune
curl -sS -o /dev/null -D - -w 'HTTP/%{http_version}\\n' https://files.example.org/open/
curl -sS -o /dev/null -D - -H 'Origin: https://files.example.org' -d action=sign-in --data-urlencode "token=$(cat ~/token)" https://files.example.org/open/
"""


def behind_nginx(stage, configuration):
    machine = stage.machine
    machine.write("/etc/nginx/conf.d/kestrune.conf", configuration)
    machine.run(CERTIFICATE)
    said = machine.run(UP_AND_DOWN, "anna")
    print(said)
    expect("picture: 23.8 MiB, not here" in said, "the file was not evicted, so it was not read through the proxy")
    expect("\nHTTP/2\n" in said, "the proxy does not speak HTTP/2")
    expect(said.lower().count("strict-transport-security: max-age=31536000") == 2, "there is no Strict-Transport-Security")
    expect("; Secure" in said, "the web page's cookie is not Secure")
    machine.run("cmp /srv/kestrune/files/picture /home/anna/picture")
    log = machine.run("cat /var/log/nginx/kestrune.log")
    expect(" PUT 200 " in log and " GET 206 " in log, f"contents did not pass through the proxy:\n{log}")
    expect("/" not in log and "picture" not in log, f"the proxy's log has what was asked for:\n{log}")
