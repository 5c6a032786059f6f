// Process entry of the web server (start-up and port supervisor are added with the web layer).
int main() { return 0; }
